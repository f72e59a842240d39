#include "event_json.h"

#include <cmath>
#include <cstdio>
#include <map>

#include "call.h"
#include "quoted.h"

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

json_fields fields_of(const std::string& text, const std::string& kind, const std::string& rest) {
  const std::size_t colon = rest.find(": "), space = rest.find(' ');
  const std::string before = rest.substr(0, colon), after = rest.substr(space + 1);
  const std::string why = colon == rest.npos ? "" : rest.substr(colon + 2);
  static const std::map<std::string, const char*> names = {
      {"led", "color"}, {"card", "card"}, {"verb", "verb"}, {"sent", "line"}, {"received", "line"}};
  const auto name = names.find(kind);
  if (name != names.end()) return {{name->second, json_string(rest)}};
  if (kind == "call" || kind == "enter") {
    json_fields fields = {{"name", json_string(rest.substr(0, space))}};
    const auto call = parse_call(text);
    if (call && call->took) {
      fields.emplace_back("ms", to_decimal(call->took->count(), 3));
    }
    return fields;
  }
  if (kind == "beep") return {{"length", json_string(rest.substr(0, space))}, {"beeps", after}};
  if (kind == "agent") return {{"state", json_string(before)}, {"why", json_string(why)}};
  if (kind == "verdict") {
    static const std::map<std::string, std::string> statuses = {
        {"PASSED", "0"}, {"FAILED", "1"}, {"ERROR", "2"}, {"COMMAND FAILED", "3"}};
    std::size_t place = why.find(':'), end = 0;  // PATH:LINE: ...
    while (place != why.npos) {
      end = why.find_first_not_of("0123456789", place + 1);
      if (end != why.npos && end > place + 1 && why[end] == ':') break;
      place = why.find(':', place + 1);
    }
    const bool has_place = place != why.npos;
    const auto status = statuses.find(before);
    return {{"status", status == statuses.end() ? "4" : status->second},
            {"verdict", json_string(before)},
            {"why", json_string(why)},
            {"path", has_place ? json_string(why.substr(0, place)) : "null"},
            {"line", has_place ? why.substr(place + 1, end - place - 1) : "null"}};
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
  const std::size_t space = event.text.find(' ');
  const std::string kind = event.text.substr(0, space);
  const std::string rest = space == event.text.npos ? "" : event.text.substr(space + 1);
  json_fields fields = {{"number", std::to_string(event.number)},
                        {"repeats", std::to_string(event.count)},
                        {"time", to_decimal(event.time.count(), 6)},
                        {"agent", event.agent == 0 ? "null" : std::to_string(event.agent)},
                        {"kind", json_string(kind)},
                        {"text", json_string(event.text)}};
  if (event.is_idle) fields.emplace_back("is_idle", "true");
  const json_fields own = fields_of(event.text, kind, rest);
  fields.insert(fields.end(), own.begin(), own.end());
  return json_object(fields);
}

event parse_json_event(const std::string& line) {
  const auto place_of = [&](const std::string& name) {
    const std::size_t place = line.find("\"" + name + "\":");
    if (place == line.npos) throw syntax_error("no " + name);
    return place + name.size() + 3;
  };
  event parsed;
  parsed.time =
      std::chrono::microseconds(std::llround(std::stod(line.substr(place_of("time"))) * 1e6));
  parsed.count = std::stoull(line.substr(place_of("repeats")));
  std::string escaped;  // as parse_quoted has it
  for (std::size_t i = place_of("text"); i < line.size(); ++i) {
    const bool is_code = line.compare(i, 4, "\\u00") == 0;
    escaped += is_code ? "\\x" : line.substr(i, line[i] == '\\' ? 2 : 1);
    i += is_code ? 3 : line[i] == '\\' ? 1 : 0;
  }
  std::size_t place = 0;
  parsed.text = parse_quoted(escaped, &place);
  return parsed;
}

}  // namespace virtual_reader
