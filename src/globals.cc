#include "globals.h"

namespace {

output_str_state out_state;
card_reader_state card_state;
const pc_prox::pc_prox_api api{};

}  // namespace

output_str_state& globals::out_state() { return ::out_state; }
card_reader_state& globals::card_state() { return ::card_state; }
const pc_prox::pc_prox_api& globals::api() { return ::api; }
