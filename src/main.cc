#include "agent.h"

// Of use to nobody at run time: `strings` finds it in the file.
[[gnu::used]] static const char version[] = "card-reader-agent " VERSION;

int main() { return run_agent(); }
