#include "agent.h"

int main() { return run_agent(); }
