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

// The number behind that name in a status file.
std::uint64_t status_number(const std::string& path, const std::string& name) {
  std::ifstream status(path + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(name + ":", 0) == 0) return std::stoull(line.substr(name.size() + 1));
  }
  return 0;
}

std::string process_folder(pid_t pid) { return "/proc/" + std::to_string(pid); }

}  // namespace

long resident_kib(pid_t pid) {
  return static_cast<long>(status_number(process_folder(pid), "VmRSS"));
}

std::size_t open_descriptors(pid_t pid) { return entries(process_folder(pid) + "/fd").size(); }

std::uint64_t context_switches(pid_t pid) {
  const std::string threads = process_folder(pid) + "/task";
  std::uint64_t sum = 0;
  for (const std::string& thread : entries(threads)) {
    sum += status_number(threads + "/" + thread, "voluntary_ctxt_switches");
  }
  return sum;
}
