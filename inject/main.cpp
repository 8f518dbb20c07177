// main.cpp - quarn-inject: puts known faults into a clean capture and writes the truth beside it.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "job.h"

namespace {

constexpr int NO_ROOM = 2; // the capture has no place for the fault
constexpr int WRONG = 3;   // a wrong option, or a file that cannot be read or written

struct Options {
    std::uint64_t seed = 1;
    std::vector<std::string> faults;
    bool list = false;
    std::string input;
    std::string output;
};

void print_kinds() {
    for (const inject::Kind& kind : inject::all_kinds()) {
        std::printf("%-20s %s\n", kind.name, kind.text);
        if (*kind.parameters != 0) {
            std::printf("%-20s   %s\n", "", kind.parameters);
        }
    }
}

// Without a fault by name one is drawn by the seed.
std::vector<inject::Request> requests_of(const Options& options) {
    std::vector<inject::Request> out;
    for (const std::string& fault : options.faults) {
        out.push_back(inject::parse_request(fault));
    }
    if (out.empty()) {
        const auto kinds = inject::all_kinds();
        out.push_back({kinds[inject::Random(options.seed).below(kinds.size())], {}, {}});
    }
    return out;
}

int run(const Options& options) {
    std::vector<inject::Request> requests;
    std::vector<inject::Record> records;
    try {
        requests = requests_of(options);
        if (std::filesystem::equivalent(options.input, options.output)) {
            throw inject::Refused(options.output + ": input and output are the same file");
        }
    } catch (const std::filesystem::filesystem_error&) {
        // One of them is not there: reading or writing says which.
    }
    inject::Capture capture(options.input);
    inject::Taken taken;
    for (std::size_t i = 0; i < requests.size(); ++i) {
        inject::Job job(capture, requests[i], options.seed * 1000003 + i, taken);
        try {
            requests[i].kind.apply(job);
        } catch (const std::out_of_range&) {
            std::fprintf(stderr, "quarn-inject: %s: there are too few packets at this place\n",
                         requests[i].kind.name);
            return NO_ROOM;
        } catch (const inject::WrongRequest&) {
            throw;
        } catch (const inject::Refused& why) {
            std::fprintf(stderr, "quarn-inject: %s: %s\n", requests[i].kind.name, why.what());
            return NO_ROOM;
        }
        records.push_back(std::move(job.record));
    }
    capture.write(options.output);
    inject::write_truth(options.output + ".truth.jsonl", capture, std::move(records));
    return 0;
}

int main_of(int argc, char** argv) {
    Options options;
    CLI::App app("Puts known faults into a clean capture and writes the truth to OUT.truth.jsonl.",
                 "quarn-inject");
    app.add_option("--seed", options.seed, "the same seed gives the same bytes (default: 1)")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--fault", options.faults,
                   "KIND[:NAME=VALUE,...][@SECONDS]; without one the seed draws a kind")
        ->allow_extra_args(false);
    const auto* list =
        app.add_flag("--list", options.list, "print the kinds of faults with their parameters");
    app.add_option("IN", options.input, "clean capture of 188-byte packets");
    app.add_option("OUT", options.output, "capture with faults");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : WRONG;
    }
    if (*list) {
        print_kinds();
        return 0;
    }
    if (options.input.empty() || options.output.empty()) {
        std::fprintf(stderr, "quarn-inject: two files are needed, IN and OUT; see --help\n");
        return WRONG;
    }
    return run(options);
}

} // namespace

int main(int argc, char** argv) {
    try {
        return main_of(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "quarn-inject: %s\n", error.what());
        return WRONG;
    }
}
