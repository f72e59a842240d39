// Where the library and the device meet.
#pragma once

#include <string>

namespace virtual_reader {

// $VIRTUAL_READER_SOCKET if that is set, else reader.sock in this user's private folder, which is
// $XDG_RUNTIME_DIR/virtual-reader or /tmp/virtual-reader-UID. Reads the environment, so call it
// while no other thread changes that.
std::string default_socket_path();

// Whether the socket may be trusted: a path from the environment is the user's own choice; the
// private folder must be a folder of this user that nobody else may enter.
bool default_socket_path_is_private();

// Makes the private folder if there is none; nothing to do for a path from the environment.
void make_default_socket_folder();

}  // namespace virtual_reader
