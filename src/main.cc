#include "agent.h"

#ifndef VERSION  // the build defines it
#define VERSION "unknown"
#endif

// Not used at run time: `strings` finds it in the file.
[[gnu::used]] static const char version[] = "card-reader-agent " VERSION;

int main() { return run_agent(); }
