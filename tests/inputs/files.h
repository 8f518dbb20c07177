// Inputs in a directory of their own.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "inputs/input.h"

namespace quarn::inputs {

class Files : public ::testing::Test {
  protected:
    Files();
    ~Files() override;

    std::string path(const std::string& name) const { return directory_ + "/" + name; }
    /// Writes a file and returns its path.
    std::string file(const std::vector<std::uint8_t>& bytes,
                     const std::string& name = "file") const;
    /// outcome() of a named pipe that the bytes come through.
    std::string through_pipe(const std::vector<std::uint8_t>& bytes) const;

    std::string directory_ = ::testing::TempDir() + "inputs.XXXXXX";
};

/// Everything that is told of an input that can be opened.
Recorder read(const std::string& operand, const OpenOptions& options = {});
/// The kind and text of the error, or what was read.
std::string outcome(const std::string& operand, const OpenOptions& options = {});

} // namespace quarn::inputs
