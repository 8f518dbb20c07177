// The process in which an analyzer runs: the executable started again by live/analyzer.h.
#pragma once

namespace quarn::live {

/// Whether this process was started to be one. Programs that use Analyzer ask this first of all.
bool is_analyzer_worker(int argc, const char* const* argv);

/// Analyses what comes until it is told to end, or its parent is gone. Returns the exit status.
int run_analyzer_worker();

} // namespace quarn::live
