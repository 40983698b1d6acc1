/*
 * vigilctl's side of vigild's control socket: one connection, command
 * lines out, one JSON answer line back for each.
 */
#ifndef VIGILCTL_CLIENT_H
#define VIGILCTL_CLIENT_H

#include <nlohmann/json.hpp>

#include <chrono>
#include <string>
#include <vector>

namespace vigilctl {

/* A word of a command line as vigild's tokenizer reads it back: as it is
 * when it has no blank, quote or backslash, else quoted (KEY=VALUE keeps
 * its key bare and quotes the value). */
std::string Word(const std::string &word);
/* The words joined into one command line. */
std::string Line(const std::vector<std::string> &words);

/* The control socket: --control, else $VIGILD_CONTROL, else
 * /run/vigild.sock. */
std::string ControlPath(const std::string &option);

class Connection {
 public:
   Connection() = default;
   ~Connection();
   Connection(const Connection &) = delete;
   Connection &operator=(const Connection &) = delete;

   bool Open(const std::string &path, std::string *error);
   bool Send(const std::string &text);
   /* One answer line, within the deadline. */
   bool ReadLine(std::string *line, std::chrono::steady_clock::time_point deadline,
                 std::string *error);

 private:
   int fd_ = -1;
   std::string buffer_;
};

/* No answer came: the socket could not be reached, or vigild closed it or
 * did not answer in time, or the answer was not JSON. */
struct NoAnswer {
   std::string message;
};

/* Asks one command at a time on one connection. */
class Client {
 public:
   using Json = nlohmann::ordered_json;

   Client(const std::string &path, double timeoutSeconds);
   /* Connects; throws NoAnswer. */
   void Open();
   /* Sends the line and reads its answer (connecting first when Open was
    * not called); throws NoAnswer.  `text`, when
    * not null, gets the answer's line as vigild wrote it. */
   Json Ask(const std::string &line, std::string *text = nullptr);

 private:
   std::string path_;
   double timeout_;
   bool open_ = false;
   Connection conn_;
};

} // namespace vigilctl

#endif /* VIGILCTL_CLIENT_H */
