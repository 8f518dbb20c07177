// truth.h - what was done to a capture and what an analyzer must, may and cannot say about it.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "capture.h"

namespace inject {

using Json = nlohmann::ordered_json;

inline constexpr int NO_PID = -1; // a finding of the whole stream

// A range of items, by id: where the place of a finding may lie.
struct Span {
    std::uint32_t first;
    std::uint32_t last;
};

// A finding, as a pattern.
struct Finding {
    std::string rule;
    std::vector<std::string> kinds; // any of them; empty: not looked at
    std::vector<int> pids;          // any of them; empty: not looked at
    Span begin{};
    std::vector<Span> end;          // none or one
    Json detail = Json::object();   // key: {"in": [...]} or {"near": value, "within": value}
    std::vector<Finding> otherwise; // any of these will do as well

    Finding& ends(Span span) {
        end = {span};
        return *this;
    }
    Finding& has(const char* key, std::vector<std::int64_t> any_of) {
        detail[key] = {{"in", std::move(any_of)}};
        return *this;
    }
    Finding& near(const char* key, double value, double within) {
        detail[key] = {{"near", value}, {"within", within}};
        return *this;
    }
    Finding& change(const char* op, int pid) {
        detail["changes"] = {{"has", {{"op", op}, {"pid", pid}}}};
        return *this;
    }
};

// One fault and what follows from it.
struct Record {
    std::string kind;
    std::uint32_t item = 0; // the first item that it touches
    int pid = NO_PID;
    int programme = 0; // 0: concerns all
    Json parameters = Json::object();
    std::vector<Finding> must;
    std::vector<Finding> may;
    std::vector<std::string> cannot; // in words
};

// Writes the records in order of their place, one JSON object a line. Throws Refused.
void write_truth(const std::string& path, const Capture& capture, std::vector<Record> records);

} // namespace inject
