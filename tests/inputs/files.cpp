#include "files.h"

#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <thread>

namespace quarn::inputs {

Files::Files() {
    EXPECT_NE(mkdtemp(directory_.data()), nullptr);
}

Files::~Files() {
    std::filesystem::remove_all(directory_);
}

std::string Files::file(const std::vector<std::uint8_t>& bytes, const std::string& name) const {
    std::ofstream(path(name), std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    return path(name);
}

std::string Files::through_pipe(const std::vector<std::uint8_t>& bytes) const {
    EXPECT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    std::thread writer([&] { file(bytes, "pipe"); });
    std::string told = outcome(path("pipe"));
    writer.join();
    return told;
}

namespace {

/// Empty, or what went wrong.
std::string read_to(Recorder& recorder, const std::string& operand, const OpenOptions& options) {
    auto opened = open(operand, options);
    if (const auto* error = std::get_if<Error>(&opened))
        return std::string(word(error->kind)) + ": " + error->text;
    Input& input = *std::get<std::unique_ptr<Input>>(opened);
    Input::Status status{};
    while ((status = input.read(recorder)) == Input::Status::more) {
    }
    return status == Input::Status::failed ? " failed: " + input.error().text : "";
}

} // namespace

Recorder read(const std::string& operand, const OpenOptions& options) {
    Recorder recorder;
    EXPECT_EQ(read_to(recorder, operand, options), "");
    return recorder;
}

std::string outcome(const std::string& operand, const OpenOptions& options) {
    Recorder recorder;
    const std::string error = read_to(recorder, operand, options);
    return recorder.text() + error;
}

} // namespace quarn::inputs
