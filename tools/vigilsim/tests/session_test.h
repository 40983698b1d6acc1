/*
 * The fixture of the tests that run a vigilsim session in this process, so
 * that a test can reach the module's records: each line answers the JSON
 * object vigilsim prints for it, and every test ends with the tables whole,
 * the module unloaded and nothing left in its heap.
 */
#ifndef VIGILSIM_SESSION_TEST_H
#define VIGILSIM_SESSION_TEST_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "session.h"

class SessionTest : public ::testing::Test {
 protected:
   using Json = vigilsim::Json;
   using Lines = std::vector<std::string>;

   void SetUp() override { Start(VIGIL_SO); }

   /* Every test leaves the tables whole and the heap empty. */
   void TearDown() override {
      if (!session->ModuleLoaded()) return;
      EXPECT_EQ(Answer("check")["violations"].dump(), "[]");
      Json unload = Answer("unload");
      EXPECT_EQ(unload["leaks"], 0) << unload.dump();
      EXPECT_EQ(unload["framesLive"], 0) << unload.dump();
   }

   void Start(const std::string &modulePath) {
      session.reset();
      vigilsim::Settings settings;
      settings.modulePath = modulePath;
      session = std::make_unique<vigilsim::Session>(settings);
   }

   /* One script line, answered as vigilsim prints it (without the script's
    * name and line in an error). */
   Json Answer(const std::string &line) {
      Json result;
      result["cmd"] = line.substr(0, line.find(' '));
      result["ok"] = true;
      try {
         std::vector<vigilsim::Token> tokens = vigilsim::Tokenize(line);
         result["cmd"] = vigilsim::Session::CommandName(tokens);
         session->Execute(tokens, result);
      } catch (const vigilsim::ToolError &e) {
         Json failure;
         failure["cmd"] = result["cmd"];
         failure["ok"] = false;
         failure["error"] = e.what();
         result = failure;
      }
      return result;
   }
   std::string Run(const std::string &line) { return Answer(line).dump(); }
   Lines RunAll(const Lines &lines) {
      Lines out;
      for (const std::string &line : lines) out.push_back(Run(line));
      return out;
   }
   /* Lines that must succeed. */
   void Do(const Lines &lines) {
      for (const std::string &line : lines) {
         Json r = Answer(line);
         ASSERT_TRUE(r["ok"].get<bool>()) << line << ": " << r.dump();
      }
   }

   std::unique_ptr<vigilsim::Session> session;
};

#endif /* VIGILSIM_SESSION_TEST_H */
