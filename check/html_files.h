// The files of --html: a page on each input, and an overview of several.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "judge.h"

namespace quarn::check {

/// Of one input FILE is its page. Of several FILE is the overview, and "FILE-1.html",
/// "FILE-2.html",
/// ... (FILE without its ".html") are theirs, numbered in the order of the inputs.
class HtmlFiles {
  public:
    /// Throws std::system_error where FILE cannot be written.
    HtmlFiles(std::string path, std::size_t inputs);

    /// The page of an input, counted from 0.
    PageFile page(std::size_t input) const;
    /// What became of an input; from any thread.
    void done(std::size_t input, const Judgement& judgement);
    /// Writes the overview, if there is one: also of a single input that could not be opened. False
    /// when that failed, which was said on standard error.
    bool finish();

  private:
    std::string path_;
    std::mutex mutex_;
    std::vector<std::string> rows_;
    HtmlCounts counts_;
    bool one_page_ = false; // FILE is a page, and it was written
};

} // namespace quarn::check
