// What channels get of their inputs.
#pragma once

#include "input_state.h"
#include "inputs/consumer.h"

namespace quarn::live {

using inputs::Arrival;
using inputs::Consumer;

} // namespace quarn::live
