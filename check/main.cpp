// quarn-check: the command line, the threads, the exit status.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

#include "explain.h"
#include "html_files.h"
#include "judge.h"
#include "list.h"
#include "options.h"
#include "ordered.h"
#include "progress.h"
#include "reports/junit.h"
#include "settings/command_line.h"
#include "settings/expect_file.h"
#include "status.h"

namespace quarn::check {

namespace {

/// A standard stream that was closed must not become the first file that is opened.
void fill_standard_streams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (::fcntl(fd, F_GETFD) < 0 && errno == EBADF)
            (void)::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

bool has_colours() {
    const char* const no_color = std::getenv("NO_COLOR");
    const char* const term = std::getenv("TERM");
    return ::isatty(STDOUT_FILENO) && !(no_color && *no_color) && term &&
           std::string_view(term) != "dumb";
}

/// The work of all threads: each takes the next input until there is none.
class Run {
  public:
    Run(const CommandLine& line, const std::vector<std::string>& inputs, Target& out, Target* junit,
        HtmlFiles* html, const Colours& colours)
        : line_(line), inputs_(inputs), html_(html), colours_(colours),
          progress_(::isatty(STDERR_FILENO), inputs.size()),
          output_(out, junit, [this] { progress_.clear(); }) {}

    int all() {
        const std::size_t count = std::min<std::size_t>(line_.jobs, inputs_.size());
        running_ = count;
        std::vector<std::jthread> threads;
        for (std::size_t i = 0; i < count; ++i)
            threads.emplace_back([&] {
                work();
                const std::lock_guard lock(mutex_);
                --running_;
                done_.notify_one();
            });
        draw_until_done();
        threads.clear();
        progress_.clear();
        return status_;
    }

  private:
    void work() {
        for (;;) {
            const std::size_t input = next_++;
            if (input >= inputs_.size() || !output_.begin(input))
                return;
            Judgement judgement = judge_one(input);
            if (html_ != nullptr)
                html_->done(input, judgement);
            output_.finish(input, std::move(judgement.ending));
            int status = status_;
            while (!status_.compare_exchange_weak(status, worse(status, judgement.status))) {
            }
        }
    }

    Judgement judge_one(std::size_t input) {
        Progress::Item item(progress_, inputs_[input]);
        const auto write = [&](std::string_view text) { output_.write(input, text); };
        const auto go_on = [&] { return !output_.failed(); };
        std::optional<PageFile> page;
        if (html_ != nullptr)
            page = html_->page(input);
        return judge(inputs_[input], line_, colours_, page, write, go_on, item.position);
    }

    void draw_until_done() {
        constexpr auto step = std::chrono::milliseconds(200);
        std::unique_lock lock(mutex_);
        while (!done_.wait_for(lock, step, [this] { return running_ == 0; })) {
            lock.unlock();
            progress_.draw();
            lock.lock();
        }
    }

    const CommandLine& line_;
    const std::vector<std::string>& inputs_;
    HtmlFiles* html_;
    const Colours& colours_;
    Progress progress_;
    OrderedOutput output_;
    std::mutex mutex_;
    std::condition_variable done_;
    std::size_t running_ = 0; // threads
    std::atomic<std::size_t> next_ = 0;
    std::atomic<int> status_ = status_healthy;
};

int check_all(const CommandLine& line, const Colours& colours) {
    const std::vector<std::string> inputs = inputs_of(line);
    if (inputs.empty())
        std::cerr << "quarn-check: no input is in this shard\n";
    if (line.cuts.wanted())
        cuts::check_directory(line.cuts.directory);
    if (line.write_expect)
        settings::taken("--write-expect",
                        [&] { settings::check_expectation_place(*line.write_expect); });
    Target out(STDOUT_FILENO, "standard output");
    std::unique_ptr<Target> junit;
    if (line.junit) {
        const int fd = ::open(line.junit->c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (fd < 0)
            throw std::system_error(errno, std::generic_category(), "--junit " + *line.junit);
        junit = std::make_unique<Target>(fd, *line.junit);
        junit->write(junit_begin());
    }
    std::unique_ptr<HtmlFiles> html;
    if (line.html)
        html = std::make_unique<HtmlFiles>(*line.html, inputs.size());
    int status = Run(line, inputs, out, junit.get(), html.get(), colours).all();
    if (html && !out.failed() && !html->finish())
        status = status_error;
    if (junit)
        junit->write(junit_end());
    return out.failed() || (junit && junit->failed()) ? status_error : status;
}

int main_of(int argc, char** argv) {
    fill_standard_streams();
    std::signal(SIGPIPE, SIG_IGN);
    const std::variant<CommandLine, int> parsed = parse_command_line(argc, argv);
    if (const int* const status = std::get_if<int>(&parsed))
        return *status;
    const CommandLine& line = std::get<CommandLine>(parsed);
    const Colours colours = has_colours() ? Colours::terminal() : Colours::none();
    if (!line.explain)
        return check_all(line, colours);
    Target out(STDOUT_FILENO, "standard output");
    out.write(explain(*line.explain, colours));
    return out.failed() ? status_error : status_healthy;
}

} // namespace

} // namespace quarn::check

int main(int argc, char** argv) {
    try {
        return quarn::check::main_of(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "quarn-check: " << error.what() << '\n';
        return quarn::check::status_error;
    }
}
