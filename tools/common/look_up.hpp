// look_up.hpp: the address of a host. The C library finds it in a time of its own, and can be neither interrupted nor
// left: so it does in a process of its own, which can.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <string>

#include "common/process.hpp"

namespace kepcommand {

// Ends with the object, whatever has come of it.
class LookUp {
 public:
  // Begins it. Throws Failure.
  explicit LookUp(const std::string &host);
  LookUp(const LookUp &) = delete;
  LookUp &operator=(const LookUp &) = delete;
  ~LookUp();

  // Becomes readable with the answer.
  int fd() const { return answer_.get(); }

  // Takes the answer, and waits where there is none yet. Throws Failure, kNoAnswer.
  in_addr address() const;

 private:
  std::string host_;
  Descriptor answer_;
  pid_t process_ = -1;
};

}  // namespace kepcommand
