#include "event_json.h"

#include <cstdio>
#include <map>
#include <sstream>

#include "call.h"

namespace virtual_reader {

namespace {

// The bytes of the UTF-8 character that begins there; 0 if none does.
std::size_t character_at(const std::string& text, std::size_t place) {
  const auto byte = [&](std::size_t i) {
    return place + i < text.size() ? static_cast<unsigned>(text[place + i] & 0xFF) : 0;
  };
  const unsigned first = byte(0);
  const std::size_t size = first < 0x80            ? 1
                           : first >> 5 == 0b110   ? 2
                           : first >> 4 == 0b1110  ? 3
                           : first >> 3 == 0b11110 ? 4
                                                   : 0;
  unsigned code = size < 2 ? first : first & (0x7Fu >> size);
  for (std::size_t i = 1; i < size; ++i) {
    if (byte(i) >> 6 != 0b10) return 0;
    code = code << 6 | (byte(i) & 0x3F);
  }
  constexpr unsigned least[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
  return code < least[size] || is_surrogate || code > 0x10FFFF ? 0 : size;
}

std::string json_numbers(const std::vector<std::int64_t>& numbers, std::size_t from = 0) {
  std::vector<std::string> values;
  for (std::size_t i = from; i < numbers.size(); ++i) values.push_back(std::to_string(numbers[i]));
  return json_array(values);
}

json_fields fields_of(const call& call) {
  json_fields fields = {{"name", json_string(call.name)},
                        {"arguments", json_numbers(call.arguments)}};
  if (!call.has_ended) return fields;
  const bool is_number = !call.has_text && !call.values.empty();
  fields.emplace_back("result", call.text   ? json_string(*call.text)
                                : is_number ? std::to_string(call.values[0])
                                            : "null");
  fields.emplace_back("values", json_numbers(call.values, is_number ? 1 : 0));
  if (call.took) {
    char ms[32];
    std::snprintf(ms, sizeof ms, "%.3f", static_cast<double>(call.took->count()) / 1e3);
    fields.emplace_back("ms", ms);
  }
  return fields;
}

// Of `TYPE.NAME=N ...`.
std::string json_settings(const std::string& text) {
  json_fields settings;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const std::size_t equals = word.find('=');
    if (equals == word.npos) continue;
    settings.emplace_back(word.substr(0, equals), word.substr(equals + 1));
  }
  return json_object(settings);
}

json_fields fields_of(const std::string& text, const std::string& kind, const std::string& rest) {
  const std::size_t colon = rest.find(": "), space = rest.find(' ');
  const std::string before = rest.substr(0, colon), after = rest.substr(space + 1);
  const std::string why = colon == rest.npos ? "" : rest.substr(colon + 2);
  if (kind == "call" || kind == "enter") {
    const auto call = parse_call(text);
    return call ? fields_of(*call) : json_fields();
  }
  if (kind == "says") {
    const auto said = parse_says(text);
    if (!said) return {};
    return {{"says", json_string(said->text)},
            {"length", std::to_string(said->length)},
            {"is_own_thread", said->own_thread ? "true" : "false"}};
  }
  if (kind == "led") return {{"color", json_string(rest)}};
  if (kind == "beep") return {{"length", json_string(rest.substr(0, space))}, {"beeps", after}};
  if (kind == "card") return {{"card", json_string(rest)}};
  if (kind == "config") return {{"settings", json_settings(rest)}};
  if (kind == "agent") return {{"state", json_string(before)}, {"why", json_string(why)}};
  if (kind == "verb") return {{"verb", json_string(rest)}};
  if (kind == "sent" || kind == "received") return {{"line", json_string(rest)}};
  if (kind == "command") {  // exited with status N
    const std::size_t last = rest.rfind(' ');
    const bool is_status = rest.find(" status ") != rest.npos;
    return {{is_status ? "status" : "signal", rest.substr(last + 1)}};
  }
  if (kind == "verdict") {
    const std::map<std::string, int> statuses = {
        {"PASSED", 0}, {"FAILED", 1}, {"ERROR", 2}, {"COMMAND FAILED", 3}};
    const auto status = statuses.find(before);
    return {{"status", std::to_string(status == statuses.end() ? 4 : status->second)},
            {"verdict", json_string(before)},
            {"why", json_string(why)}};
  }
  return {};
}

}  // namespace

std::string json_string(const std::string& text) {
  std::string json = "\"";
  const auto escape = [&](char c) {
    char code[8];
    std::snprintf(code, sizeof code, "\\u%04X",
                  static_cast<unsigned>(static_cast<unsigned char>(c)));
    json += code;
  };
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t size = character_at(text, i);
    if (text[i] == '"' || text[i] == '\\') json += '\\';
    const bool is_control = (text[i] & 0xFF) < ' ';
    is_control || size == 0 ? escape(text[i]) : void(json.append(text, i, size));
    i += std::max<std::size_t>(size, 1);
  }
  return json + "\"";
}

std::string json_object(const json_fields& fields) {
  std::string json;
  for (const auto& [name, value] : fields) {
    json += (json.empty() ? "{" : ",") + json_string(name) + ":" + value;
  }
  return json.empty() ? "{}" : json + "}";
}

std::string json_array(const std::vector<std::string>& values) {
  std::string json;
  for (const std::string& value : values) json += (json.empty() ? "" : ",") + value;
  return "[" + json + "]";
}

std::string to_json(const event& event) {
  char time[32];
  std::snprintf(time, sizeof time, "%.6f", static_cast<double>(event.time.count()) / 1e6);
  const std::size_t space = event.text.find(' ');
  const std::string kind = event.text.substr(0, space);
  const std::string rest = space == event.text.npos ? "" : event.text.substr(space + 1);
  json_fields fields = {{"number", std::to_string(event.number)},
                        {"repeats", std::to_string(event.count)},
                        {"time", time},
                        {"agent", event.agent == 0 ? "null" : std::to_string(event.agent)},
                        {"kind", json_string(kind)},
                        {"text", json_string(event.text)}};
  if (event.is_idle) fields.emplace_back("is_idle", "true");
  const json_fields own = fields_of(event.text, kind, rest);
  fields.insert(fields.end(), own.begin(), own.end());
  return json_object(fields);
}

}  // namespace virtual_reader
