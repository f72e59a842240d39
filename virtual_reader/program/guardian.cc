#include "guardian.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "wire.h"

namespace virtual_reader {

namespace {

const char script_text[] = R"(
exec 2>/dev/null
trap '' HUP INT QUIT TERM
group=
while read -r line; do group=$line; done
for signal in TERM KILL; do
  [ "$group" ] && kill -s $signal -- "-$group" || break
  tries=0
  while [ $tries -lt 100 ] && kill -s 0 -- "-$group"; do sleep 0.02; tries=$((tries + 1)); done
done
[ "$0" = sh ] || { rm -f "$0/reader.sock"; rmdir "$0"; }
)";

std::string make_folder() {
  const char* const wanted = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe)
  const std::string name = "/virtual-reader-XXXXXX";
  std::string folder = (wanted && *wanted ? wanted : "/tmp") + name;
  if (!address_of(folder + "/reader.sock")) folder = "/tmp" + name;
  if (!mkdtemp(folder.data())) {
    throw std::system_error(errno, std::generic_category(), "cannot make " + folder);
  }
  return folder;
}

}  // namespace

guardian::guardian(bool wants_folder)
    : folder(wants_folder ? make_folder() : ""),
      script({"/bin/sh", "-c", script_text, wants_folder ? folder : "sh"}, {{}, false, {}, true}) {}

guardian::~guardian() {
  send("");  // the command has ended
  script.close_input();
  script.wait();
}

void guardian::send(const std::string& group) const noexcept try {
  script.send(group + "\n");
} catch (const std::system_error&) {  // it was killed; then there is none
}

}  // namespace virtual_reader
