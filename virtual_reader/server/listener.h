// The private local socket at which agents find a virtual reader.
#pragma once

#include <sys/types.h>

#include <string>

#include "wire.h"

namespace virtual_reader {

class listener {
 public:
  // Listens when it returns. Throws std::runtime_error with one line, for instance when another
  // virtual reader listens there; a socket that one has left behind is taken over.
  explicit listener(const std::string& socket_path);
  ~listener();  // removes the socket if it is still its own

  // The next connection; -1 if none comes in a second, or after interrupt().
  int accept();
  void interrupt() const;                       // from any thread
  int number() const { return socket.number; }  // for poll(2)

 private:
  const std::string path;
  const descriptor socket;
  ino_t inode = 0;
};

}  // namespace virtual_reader
