// A file with packets that were cut out of an input.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "measure/rules.h"

namespace quarn::cuts {

/// "news.ts-497-1.4": what is not safe in a file name is an underscore in it, of a long name of an
/// input the end is taken. `place`: what tells findings of one input and rule apart.
std::string stem_of(std::string_view input, std::string_view place, Rule rule);

/// Made new, written from its begin to its end, closed with its object. One thread at a time.
class File {
  public:
    /// "DIRECTORY/STEM.ENDING", or with "-2", "-3", ... behind the stem: no file that is there is
    /// ever written to. Nothing where that fails, with errno in `error`.
    static std::optional<File> create(const std::string& directory, const std::string& stem,
                                      std::string_view ending, int& error);
    /// The same under that one name.
    static std::optional<File> create(const std::string& path, int& error);
    File(File&& other) noexcept;
    File& operator=(File&& other) noexcept;
    ~File();

    /// 0, or errno: then a part of it may be written.
    int append(std::span<const std::uint8_t> bytes) const;
    /// Nobody has taken the file away, or the directory that it was made in.
    bool is_there() const;
    /// Takes the file away.
    void remove();
    const std::string& path() const { return path_; }

  private:
    File(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}

    std::string path_;
    int fd_;
};

} // namespace quarn::cuts
