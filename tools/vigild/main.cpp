/*
 * vigild: runs the simulated host on the real clock with the Port Vigil
 * module loaded, and switches frames between its ports and Linux
 * interfaces.
 *
 *   vigild [--module PATH] [--script FILE ...] [--control PATH] [--verbose]
 *          [--stop-on-error] [--no-load] [--budget N] [--threads N] [--no-tx-ring]
 *          [--ageing SECONDS]
 *          [--debug] [--policy FILE] [--state-dir DIR]
 *
 * The start-up scripts run first; when they have not loaded the module,
 * vigild loads it (unless --no-load).  Then the management agent applies
 * the policy (--policy; SIGHUP reads it again) and restores the bindings
 * saved under --state-dir when vigild last stopped.
 *
 * Exit status: 0 after a clean stop, 1 when it could not start or a
 * start-up script failed with --stop-on-error, 2 for a usage error.
 */
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>

#include "daemon.h"
#include "daemon_log.h"

int main(int argc, char **argv) {
   /* Before anything starts a thread: every thread inherits the mask, and
    * only the switching thread takes the signals, through signalfd. */
   vigild::BlockSignals();

   CLI::App app{"Switches frames between Linux interfaces through the Port Vigil module "
                "in the simulated host."};
   vigild::DaemonOptions options;
   std::string modulePath;
   bool debug = false;
   double ageing = 300;
   size_t budget = 4;
   size_t threads = 2;
   bool noTxRing = false;
   app.add_option("--module", modulePath, "the module to load (default: vigil.so of this build)");
   app.add_option("--script", options.scripts, "start-up script, run before switching")
       ->allow_extra_args(false);
   app.add_option("--control", options.controlPath, "Unix socket for commands");
   app.add_flag("--verbose", options.verbose, "copy every log line of the host to standard error");
   app.add_flag("--no-load", options.noLoad,
                "do not load the module when the start-up scripts did not");
   app.add_flag("--stop-on-error", options.stopOnError,
                "stop when a command of a start-up script fails");
   app.add_option("--budget", budget, "batches of 32 frames per port per wake-up (default 4)")
       ->check(CLI::Range(1, 1024));
   app.add_option("--threads", threads, "switching threads (default 2)")
       ->check(CLI::Range(1, 64));
   app.add_flag("--no-tx-ring", noTxRing,
                "send with sendmmsg rather than through a send ring per port");
   app.add_option("--ageing", ageing, "seconds before a learnt address is forgotten (default 300)")
       ->check(CLI::PositiveNumber);
   app.add_flag("--debug", debug, "log the daemon's debug lines");
   app.add_option("--policy", options.policyPath,
                  "the policy file (TOML), read at start and on SIGHUP");
   app.add_option("--state-dir", options.stateDir,
                  "where the agent keeps bindings across a restart (default /var/lib/vigild)");
   try {
      app.parse(argc, argv);
   } catch (const CLI::ParseError &e) {
      int rc = app.exit(e);
      return rc == 0 ? 0 : 2;
   }
   for (const std::string &script : options.scripts) {
      if (!std::ifstream(script)) {
         std::fprintf(stderr, "vigild: cannot read script %s\n", script.c_str());
         return 2;
      }
   }
   if (!options.policyPath.empty() && !std::ifstream(options.policyPath)) {
      std::fprintf(stderr, "vigild: cannot read policy %s\n", options.policyPath.c_str());
      return 2;
   }
   if (debug) vigild::SetLogLevel(vigild::Level::Debug);
   options.modulePath = modulePath.empty() ? vigilsim::DefaultModulePath() : modulePath;
   options.bridge.budget = budget;
   options.bridge.threads = threads;
   options.bridge.txRing = !noTxRing;
   options.bridge.ageingSeconds = ageing;
   vigild::Daemon daemon(options);
   return daemon.Run();
}
