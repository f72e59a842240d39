#include "process_figures.h"

#include <dirent.h>

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

// The sum of the numbers in the lines of a status file whose names end so.
std::uint64_t status_sum(const std::string& path, const std::string& name_end) {
  std::ifstream status(path + "/status");
  std::uint64_t sum = 0;
  for (std::string line; std::getline(status, line);) {
    const std::size_t found = line.find(name_end + ":");
    if (found != std::string::npos) sum += std::stoull(line.substr(found + name_end.size() + 1));
  }
  return sum;
}

std::string process_folder(pid_t pid) { return "/proc/" + std::to_string(pid); }

}  // namespace

long resident_kib(pid_t pid) { return static_cast<long>(status_sum(process_folder(pid), "VmRSS")); }

std::size_t open_descriptors(pid_t pid) { return entries(process_folder(pid) + "/fd").size(); }

std::uint64_t context_switches(pid_t pid) {
  const std::string threads = process_folder(pid) + "/task";
  std::uint64_t sum = 0;
  for (const std::string& thread : entries(threads)) {
    sum += status_sum(threads + "/" + thread, "ctxt_switches");
  }
  return sum;
}
