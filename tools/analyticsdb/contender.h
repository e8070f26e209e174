// contender.h - a second process that holds the database in short exclusive bursts, as another
// service of the gateway would, so that the library's writes meet a busy database.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace adbtool {

class Contender {
public:
  // Forks the contending process; it opens its own connection to `path`.
  explicit Contender(const std::string &path);
  ~Contender();
  Contender(const Contender &) = delete;
  Contender &operator=(const Contender &) = delete;

  // Ends the bursts and waits for the process; returns how many bursts it held.
  uint64_t stop();

private:
  pid_t child_ = -1;
  int stopWriter_ = -1; // closing it tells the child to finish
  int resultReader_ = -1;
  uint64_t bursts_ = 0;
};

} // namespace adbtool
