// make_captures.cpp - writes the captures that a file describes: make_captures FILE DIRECTORY
//
// "== name" begins the capture name.ts, the lines behind it are steps of steps.h; blank lines and
// those that begin with # are for the reader. Two steps besides: "like name" takes over the packets
// of an earlier capture, "cut n" ends the file with n bytes of a further packet.
#include <cstdio>
#include <exception>
#include <fstream>

#include "steps.h"

namespace {

class capture_writer {
  public:
    explicit capture_writer(std::string directory) : directory_(std::move(directory)) {}

    void begin(const std::string& name) {
        name_ = name;
        captures_[name] = {};
        tail_.clear();
    }
    [[nodiscard]] bool add(const ts::words& w) {
        if (w[0] == "like")
            captures_[name_] = captures_.at(w.at(1));
        else if (w[0] == "cut")
            tail_.assign(std::stoul(w.at(1)), 0x47);
        else
            return ts::add_step(captures_[name_], w);
        return true;
    }
    [[nodiscard]] bool end() const {
        return name_.empty() || captures_.at(name_).write(directory_ + "/" + name_ + ".ts", tail_);
    }

  private:
    std::string directory_, name_;
    std::map<std::string, ts::stream> captures_;
    ts::bytes tail_;
};

bool make_captures(std::istream& in, capture_writer& out, std::string& line) {
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        if (line.starts_with("== ")) {
            if (!out.end())
                return false;
            out.begin(line.substr(3));
        } else if (!out.add(ts::split_words(line))) {
            return false;
        }
    }
    return out.end();
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s FILE DIRECTORY\n", argv[0]);
        return 2;
    }
    std::ifstream in(argv[1]);
    capture_writer out(argv[2]);
    std::string line;
    try {
        if (in && make_captures(in, out, line))
            return 0;
    } catch (const std::exception&) { // a word that is no number, or too few of them
    }
    std::fprintf(stderr, "%s: %s: cannot make or write: %s\n", argv[0], argv[1], line.c_str());
    return 1;
}
