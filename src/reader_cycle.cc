#include "reader_cycle.h"

#include <memory>

#include "globals.h"
#include "white_space.h"

namespace {

constexpr std::int16_t id_length_index = 32;  // where the library keeps the ID's length in bits
constexpr std::int64_t most_id_bits = 256;    // the bytes at index 0 to 31

unsigned id_byte(std::int64_t index) {
  return static_cast<unsigned>(globals::api().GetQueuedID_index(static_cast<std::int16_t>(index)) &
                               0xFF);
}

// The length of the ID fetched last, in bits. If the reader leaves it 0, the
// highest byte that is not zero counts, and 0 means no card.
std::int64_t id_length() {
  const std::int64_t bits = globals::api().GetQueuedID_index(id_length_index);
  if (bits != 0) return bits;
  for (std::int64_t index = 31; index >= 0; --index) {
    if (id_byte(index) != 0) return 8 * (index + 1);
  }
  return 0;
}

// The lowest `bits` bits of the ID fetched last, in upper-case hexadecimal, most significant digit
// first: two digits a whole byte, before them one for 1 to 3 left-over bits or two for 4 to 7.
std::string card_text(std::int64_t bits) {
  static const char digits[] = "0123456789ABCDEF";
  const std::int64_t whole_bytes = bits / 8;
  const std::int64_t left_over = bits % 8;
  std::string text;
  if (left_over > 0) {
    const unsigned value = id_byte(whole_bytes) & ((1u << left_over) - 1);
    if (left_over >= 4) text += digits[value >> 4];
    text += digits[value & 0xF];
  }
  for (std::int64_t index = whole_bytes - 1; index >= 0; --index) {
    const unsigned value = id_byte(index);
    text += digits[value >> 4];
    text += digits[value & 0xF];
  }
  return text;
}

// The name of the connection with that number, of a reader with that part number.
std::string reader_name(std::uint64_t number, const std::string& part_number) {
  std::string name = "Dev" + std::to_string(number);
  if (part_number.empty()) return name;
  name += '-';
  for (const char c : part_number) name += is_white_space(c) ? '_' : c;
  return name;
}

}  // namespace

action_result scan_for_reader::execute_impl() {
  card_reader_state& state = globals::card_state();
  output_str_state& out = globals::out_state();
  const pc_prox::pc_prox_api& api = globals::api();

  api.USBDisconnect();
  api.SetDevTypeSrch(state.device_type_search);
  if (api.usbConnect() != 0) {
    const std::uint64_t number = ++state.device_counter;
    const char* const text = api.getPartNumberString();
    const std::string part_number = text ? text : "";
    state.reader_name = reader_name(number, part_number);
    out.push_line("Reader: " + state.reader_name);
    if (text) out.push_line("Log: Reader part number is '" + part_number + "'");
    // After the end of input a poll could report to nobody, and polls that fail would search anew.
    if (!state.stop) state.enqueue(std::make_unique<scan_for_card>(state.reader_name));
  } else if (state.reader_name != global_reader) {
    state.reader_name = global_reader;
    out.push_line("Reader: " + state.reader_name);
  }
  state.last_scan = std::chrono::steady_clock::now();
  return {true, {}};
}

action_result scan_for_card::execute_impl() {
  card_reader_state& state = globals::card_state();
  if (globals::api().GetQueuedID(1, 0) == 0) {
    state.enqueue(std::make_unique<scan_for_reader>());
    return {false, {}};
  }
  state.last_scan = std::chrono::steady_clock::now();

  const std::int64_t bits = id_length();
  // The library never has more than 256 bits to give, so a larger number is no card's.
  if (bits <= 0 || bits > most_id_bits) return {true, {}};
  std::string text = card_text(bits);
  globals::out_state().push_line("Card: " + text);
  return {true, std::move(text)};
}
