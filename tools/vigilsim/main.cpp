/*
 * vigilsim: loads the Port Vigil module into the simulated host and runs
 * scripts against it, one command per line, one JSON object per command on
 * standard output (or readable text with --text).
 *
 * Exit status: 0 when every command succeeded, 1 otherwise, 2 for a usage
 * error.
 */
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>

#include "session.h"
#include "text.h"

namespace {

using vigilsim::Json;

struct Runner {
   vigilsim::Session &session;
   bool text;
   bool stopOnError;
   bool failed = false;
   bool stopped = false;
   bool inComment = false; /* the previous line was a printed comment */

   void Print(const std::string &line, const Json &result) {
      if (text) {
         std::fputs(vigilsim::RenderText(line, result).c_str(), stdout);
      } else {
         std::string out = result.dump(-1, ' ', false, Json::error_handler_t::replace);
         std::fputs((out + "\n").c_str(), stdout);
      }
      std::fflush(stdout);
   }

   void RunLine(const std::string &where, const std::string &line) {
      if (vigilsim::IsBlankOrComment(line)) {
         size_t hash = line.find('#');
         bool shown = text && hash != std::string::npos && line.compare(hash, 2, "#!") != 0;
         if (shown) std::fputs(vigilsim::RenderComment(line, !inComment).c_str(), stdout);
         inComment = shown;
         return;
      }
      inComment = false;
      Json result;
      std::string cmd = line.substr(line.find_first_not_of(" \t"));
      cmd = cmd.substr(0, cmd.find_first_of(" \t\r"));
      result["cmd"] = cmd;
      result["ok"] = true;
      try {
         std::vector<vigilsim::Token> tokens = vigilsim::Tokenize(line);
         result["cmd"] = vigilsim::Session::CommandName(tokens);
         session.Execute(tokens, result);
      } catch (const std::exception &e) {
         bool tool = dynamic_cast<const vigilsim::ToolError *>(&e) != nullptr;
         Json failure;
         failure["cmd"] = result["cmd"];
         failure["ok"] = false;
         failure["error"] = where + ": " + (tool ? "" : "internal error: ") + e.what();
         result = failure;
      }
      Print(line, result);
      if (!result["ok"].get<bool>()) {
         failed = true;
         stopped = stopOnError;
      }
   }

   void RunStream(const std::string &name, std::istream &in) {
      std::string line;
      for (size_t lineNo = 1; !stopped && std::getline(in, line); lineNo++) {
         RunLine(name + ":" + std::to_string(lineNo), line);
      }
   }
};

} // namespace

int main(int argc, char **argv) {
   CLI::App app{"Runs scripts against the Port Vigil module in the simulated host.\n"
                "Reads standard input when no SCRIPT is given or SCRIPT is -."};
   std::string modulePath;
   bool stopOnError = false, verbose = false, text = false;
   std::vector<std::string> scripts;
   app.add_option("--module", modulePath, "the module to load (default: vigil.so of this build)");
   app.add_flag("--stop-on-error", stopOnError, "end the run at the first failed command");
   app.add_flag("--verbose", verbose, "copy every log line of the host to standard error");
   app.add_flag("--text", text, "print readable text instead of JSON");
   app.add_option("SCRIPT", scripts, "scripts to run, in order");
   try {
      app.parse(argc, argv);
   } catch (const CLI::ParseError &e) {
      int rc = app.exit(e);
      return rc == 0 ? 0 : 2;
   }
   if (scripts.empty()) scripts.push_back("-");
   for (const std::string &script : scripts) {
      if (script != "-" && !std::ifstream(script)) {
         std::fprintf(stderr, "vigilsim: cannot read script %s\n", script.c_str());
         return 2;
      }
   }

   vigilsim::Settings settings;
   settings.modulePath = modulePath.empty() ? vigilsim::DefaultModulePath() : modulePath;
   settings.verbose = verbose;
   vigilsim::Session session(settings);
   Runner runner{session, text, stopOnError};
   for (const std::string &script : scripts) {
      if (runner.stopped) break;
      if (script == "-") {
         runner.RunStream("stdin", std::cin);
      } else {
         std::ifstream in(script);
         runner.RunStream(script, in);
      }
   }
   return runner.failed ? 1 : 0;
}
