#include "process_figures.h"

#include <dirent.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

std::vector<std::string> entries(const std::string& path) {
  std::vector<std::string> names;
  if (DIR* const folder = opendir(path.c_str())) {
    while (const dirent* entry = readdir(folder)) {
      if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    }
    closedir(folder);
  }
  return names;
}

std::uint64_t number_in(const std::string& text) {
  return std::strtoull(text.c_str(), nullptr, 10);
}

std::string process_folder(pid_t pid) { return "/proc/" + std::to_string(pid); }

// What stands behind "KEY:" in a file of such lines; nothing when there is none.
std::string value_of(const std::string& path, const std::string& key) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (line.compare(0, key.size() + 1, key + ":") == 0) return line.substr(key.size() + 1);
  }
  return {};
}

std::vector<std::string> values_of_threads(pid_t pid, const std::string& key) {
  const std::string folder = process_folder(pid) + "/task";
  std::vector<std::string> values;
  for (const std::string& thread : entries(folder)) {
    values.push_back(value_of(folder + "/" + thread + "/status", key));
  }
  return values;
}

std::uint64_t sum_over_threads(pid_t pid, const std::string& key) {
  std::uint64_t sum = 0;
  for (const std::string& value : values_of_threads(pid, key)) sum += number_in(value);
  return sum;
}

}  // namespace

std::uint64_t resident_kib(pid_t pid) {
  return number_in(value_of(process_folder(pid) + "/smaps_rollup", "Rss"));
}

std::size_t open_descriptors(pid_t pid) { return entries(process_folder(pid) + "/fd").size(); }

std::uint64_t voluntary_switches(pid_t pid) {
  return sum_over_threads(pid, "voluntary_ctxt_switches");
}

std::uint64_t involuntary_switches(pid_t pid) {
  return sum_over_threads(pid, "nonvoluntary_ctxt_switches");
}

bool is_asleep(pid_t pid) {
  for (const std::string& state : values_of_threads(pid, "State")) {
    if (state.find("sleeping") == std::string::npos) return false;
  }
  return true;
}
