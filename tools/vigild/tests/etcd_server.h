/*
 * A real etcd member for tests: started on free loopback ports in a
 * directory of its own, stopped and removed at the end.  Tests that need
 * one skip when etcd is not installed.
 */
#ifndef VIGILD_TESTS_ETCD_SERVER_H
#define VIGILD_TESTS_ETCD_SERVER_H

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "etcd_client.h"

namespace vigild_test {

inline int FreePort() {
   int fd = socket(AF_INET, SOCK_STREAM, 0);
   sockaddr_in addr{};
   addr.sin_family = AF_INET;
   addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
   socklen_t len = sizeof addr;
   getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
   close(fd);
   return ntohs(addr.sin_port);
}

inline bool EtcdInstalled() { return access("/usr/bin/etcd", X_OK) == 0; }

class EtcdServer {
 public:
   /* clientPort 0 picks a free one. */
   explicit EtcdServer(int clientPort = 0)
       : clientPort_(clientPort ? clientPort : FreePort()), peerPort_(FreePort()) {
      char tmpl[] = "/tmp/vigild-etcd-XXXXXX";
      dir_ = mkdtemp(tmpl);
   }
   ~EtcdServer() {
      Stop();
      std::error_code ec;
      std::filesystem::remove_all(dir_, ec);
   }

   std::string Url() const { return "http://127.0.0.1:" + std::to_string(clientPort_); }
   int ClientPort() const { return clientPort_; }

   /* Starts the member and waits until it grants a lease. */
   bool Start() {
      const std::string peer = "http://127.0.0.1:" + std::to_string(peerPort_);
      const std::string logPath = dir_ + "/etcd.log";
      pid_ = fork();
      if (pid_ == 0) {
         FILE *log = freopen(logPath.c_str(), "a", stdout);
         (void)log;
         dup2(STDOUT_FILENO, STDERR_FILENO);
         execl("/usr/bin/etcd", "etcd", "--name", "t", "--data-dir", (dir_ + "/data").c_str(),
               "--listen-client-urls", Url().c_str(), "--advertise-client-urls", Url().c_str(),
               "--listen-peer-urls", peer.c_str(), "--initial-advertise-peer-urls", peer.c_str(),
               "--initial-cluster", ("t=" + peer).c_str(), "--log-level", "error", (char *)nullptr);
         _exit(127);
      }
      vigild::EtcdClient client({Url()});
      for (int i = 0; i < 100; ++i) {
         int64_t lease = 0;
         if (client.Grant(5, &lease)) {
            client.Revoke(lease);
            return true;
         }
         std::this_thread::sleep_for(std::chrono::milliseconds(100));
      }
      return false;
   }

   void Stop() {
      if (pid_ <= 0) return;
      kill(pid_, SIGTERM);
      int status;
      waitpid(pid_, &status, 0);
      pid_ = -1;
   }

 private:
   int clientPort_;
   int peerPort_;
   std::string dir_;
   pid_t pid_ = -1;
};

} // namespace vigild_test

#endif /* VIGILD_TESTS_ETCD_SERVER_H */
