#include "recording.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace virtual_reader {

namespace {

bool is_of_a_call(const std::string& entry) {
  const std::string kind = entry.substr(0, entry.find(' '));
  return kind == "call" || kind == "enter" || kind == "says";
}

// Reads entry after entry; what belongs to a call before it goes there.
class collector {
 public:
  void add_says(const says& said) { said_before.push_back(said); }
  void add_beginning(const call& text, std::chrono::microseconds began) {
    begun.emplace();
    begun->name = text.name;
    begun->arguments = text.arguments;
    begun->has_ended = false;
    begun->ended = began;
  }
  void add_call(const call& text, std::chrono::microseconds ended) {
    begun.reset();
    if (text.name == "GetQueuedID_index") return add_index(text);
    recorded_call added;
    static_cast<call&>(added) = text;
    added.ended = ended;
    added.said.swap(said_before);
    calls.push_back(added);
    const std::size_t index = calls.size() - 1;
    if (text.name == "GetLastLibErr" && failed && !text.values.empty()) {
      calls[*failed].error = text.values[0];
    }
    if (added.has_failed()) failed = index;
    if (added.is_poll()) poll = index;
    if (text.name == "usbConnect") connection = index;
    if (text.name == "ReadCfg") configuration_read = index;
    if (text.name == "getPartNumberString" && connection) calls[*connection].part = text.text;
    if (configuration_read && text.values.size() == 9 && text.name.rfind("Get", 0) == 0) {
      std::array<std::int16_t, 8> fields;
      std::transform(text.values.begin() + 1, text.values.end(), fields.begin(),
                     [](std::int64_t value) { return static_cast<std::int16_t>(value); });
      const auto place = record_of(text.name);
      // The first: later ones may have been set in between.
      if (place) calls[*configuration_read].records.emplace(*place, fields);
    }
  }
  std::vector<recorded_call> take(bool was_cut_off) {
    // What was written after its beginning may have been its end.
    if (begun && !was_cut_off) {
      begun->said.swap(said_before);
      calls.push_back(*std::move(begun));
    }
    return std::move(calls);
  }

 private:
  void add_index(const call& text) {
    const std::int64_t index = text.arguments.empty() ? -1 : text.arguments[0];
    if (!poll || index < 0 || index > 32 || text.values.empty() || text.values[0] == 0) return;
    if (!calls[*poll].card) calls[*poll].card.emplace();
    calls[*poll].card->values[static_cast<std::size_t>(index)] = text.values[0];
  }

  std::vector<recorded_call> calls;
  std::vector<says> said_before;
  std::optional<recorded_call> begun;  // and has not ended so far
  std::optional<std::size_t> failed, poll, connection, configuration_read;  // the last one of each
};

}  // namespace

std::vector<recorded_call> read_recording(std::istream& recording, const std::string& name) {
  collector all;
  int number = 0;
  bool was_cut_off = false;
  for (std::string line; std::getline(recording, line);) {
    if (++number == 1 && line != recording_header) break;
    if (line.empty() || line[0] == '#') continue;
    const auto entry = parse_event(line);
    const auto call = entry ? parse_call(entry->text) : std::nullopt;
    const auto said = entry ? parse_says(entry->text) : std::nullopt;
    if (said) {
      all.add_says(*said);
    } else if (call && is_call(call->name)) {
      call->has_ended ? all.add_call(*call, entry->time) : all.add_beginning(*call, entry->time);
    } else if (!entry || call || is_of_a_call(entry->text)) {
      was_cut_off = recording.eof();
      if (was_cut_off) break;
      throw std::runtime_error(
          name + ":" + std::to_string(number) +
          ": this is no entry, like '1.250000 1 call BeepNow 2 0 -> 1 (0.125 ms)'");
    }  // others say what follows from the calls
  }
  if (number < 2) throw std::runtime_error(name + " is no recording, or cannot be read");
  return all.take(was_cut_off);
}

std::vector<recorded_call> read_recording(const std::string& path) {
  std::ifstream file(path);
  return read_recording(file, path);
}

}  // namespace virtual_reader
