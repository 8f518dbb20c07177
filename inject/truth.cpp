// truth.cpp - ids become packet numbers and byte offsets of the capture as it is written.
#include "truth.h"

#include <algorithm>
#include <fstream>

namespace inject {

namespace {

struct Place {
    std::uint64_t packet; // from 1
    std::uint64_t byte;   // of its sync byte, from 0
};

// A place for each id: an item that is not written stands where the next one does.
std::vector<Place> places(const Capture& capture) {
    std::vector<Place> out(capture.items.size());
    Place here{1, 0};
    for (const Item& item : capture.items) {
        here.byte += item.before.size();
        out[item.id] = here;
        if (!item.raw.empty()) {
            here.byte += item.raw.size();
        } else if (!item.gone) {
            here.byte += PACKET_SIZE;
            ++here.packet;
        }
    }
    // What is not written at the end stands on the last packet that is.
    for (auto item = capture.items.rbegin(); item != capture.items.rend() && item->gone; ++item) {
        out[item->id].packet = std::max<std::uint64_t>(here.packet, 2) - 1;
    }
    return out;
}

Json range(const Span& span, const std::vector<Place>& at) {
    return {at[span.first].packet, std::max(at[span.first].packet, at[span.last].packet)};
}

Json pattern(const Finding& finding, const std::vector<Place>& at) {
    Json pids = Json::array();
    for (const int pid : finding.pids) {
        pids.push_back(pid == NO_PID ? Json() : Json(pid));
    }
    Json out{{"rule", finding.rule},
             {"kinds", finding.kinds},
             {"pids", pids},
             {"begin", range(finding.begin, at)},
             {"end", finding.end.empty() ? Json() : range(finding.end.front(), at)},
             {"detail", finding.detail}};
    for (const Finding& other : finding.otherwise) {
        out["or"].push_back(pattern(other, at));
    }
    return out;
}

Json patterns(const std::vector<Finding>& findings, const std::vector<Place>& at) {
    Json out = Json::array();
    for (const Finding& finding : findings) {
        out.push_back(pattern(finding, at));
    }
    return out;
}

} // namespace

void write_truth(const std::string& path, const Capture& capture, std::vector<Record> records) {
    const auto at = places(capture);
    std::stable_sort(records.begin(), records.end(), [&at](const Record& a, const Record& b) {
        return at[a.item].packet < at[b.item].packet;
    });
    std::ofstream file(path, std::ios::trunc);
    for (const Record& record : records) {
        const Json line{{"schema", "quarn-truth/1"},
                        {"kind", record.kind},
                        {"packet", at[record.item].packet},
                        {"byte", at[record.item].byte},
                        {"time_s", capture.items[capture.index_of(record.item)].time},
                        {"pid", record.pid == NO_PID ? Json() : Json(record.pid)},
                        {"programme", record.programme == 0 ? Json() : Json(record.programme)},
                        {"parameters", record.parameters},
                        {"must", patterns(record.must, at)},
                        {"may", patterns(record.may, at)},
                        {"cannot", record.cannot}};
        file << line.dump() << '\n';
    }
    if (!file.flush()) {
        throw Refused(path + ": the truth could not be written");
    }
}

} // namespace inject
