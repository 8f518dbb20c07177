// Records appended to a file or to standard output.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "lane.h"

namespace quarn::live {

/// A file that cannot be written (a full disk) is tried again; no record is torn. Says on standard
/// error when it cannot, and when it can again.
class RecordFile final : public Target {
  public:
    /// "-" is standard output; `reader_gone` is called in the lane's thread when nobody reads it
    /// any more. Throws std::system_error.
    RecordFile(std::string path, std::function<void()> reader_gone);
    ~RecordFile() override;
    RecordFile(const RecordFile&) = delete;
    RecordFile& operator=(const RecordFile&) = delete;

    bool take(const Record& record) override;
    void reopen() override;

  private:
    using Clock = std::chrono::steady_clock;
    std::string what() const; // for people
    void open();
    bool write_some(const std::string& text);
    bool failed(int error);

    std::string path_;
    std::function<void()> reader_gone_;
    int fd_ = -1;
    bool regular_ = false;
    std::size_t written_ = 0; // of the record that is being written
    bool complained_ = false;
    bool gone_ = false;       // nobody reads standard output
    Clock::time_point again_; // not before
};

} // namespace quarn::live
