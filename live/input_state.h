// Whether something comes from an input.
#pragma once

#include "inputs/input_state.h"

namespace quarn::live {

using inputs::InputState;

} // namespace quarn::live
