#include "reader_library.h"

#include <dlfcn.h>

namespace bringup {

namespace {

// Where there is such a mode, the library finds its own functions before those of the same name in
// the program that loads it. Sanitizers cannot live with it.
#if defined(RTLD_DEEPBIND) && !defined(SANITIZED)
constexpr int mode = RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND;
#else
constexpr int mode = RTLD_NOW | RTLD_LOCAL;
#endif

template <typename T>
void find(void* library, const char* name, T* function, std::vector<std::string>* missing) {
  *function = reinterpret_cast<T>(dlsym(library, name));
  if (!*function) missing->push_back(name);
}

}  // namespace

std::string reader_library::load(const std::string& path) {
  // A name without a slash would be searched for in the system's folders.
  const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
  void* const library = dlopen(file.c_str(), mode);
  if (!library) {
    const char* const why = dlerror();
    return why ? why : "cannot load " + path;
  }
#define READER_FUNCTION(name) find(library, #name, &name, &missing);
#include "reader_functions.inc"
#undef READER_FUNCTION
  return {};
}

}  // namespace bringup
