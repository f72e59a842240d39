#include "event_file.h"

#include "event_json.h"
#include "wire.h"

namespace virtual_reader {

event_file::event_file(const event_log& written, std::ostream& file)
    : log(written), writer([this, &file] {
        for (std::uint64_t next = 1; log.wait(next, never, [this] { return is_ending.load(); }) ||
                                     next < log.end();) {
          for (const event& each : log.read(next)) {
            if (!each.is_idle) file << to_json(each) << '\n';
            next = each.end();
          }
          file.flush();
        }
      }) {}

event_file::~event_file() {
  is_ending = true;
  log.wake();
  writer.join();
}

}  // namespace virtual_reader
