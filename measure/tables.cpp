// From packets to tables in force.
#include "tables.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "psi.h"

namespace quarn {

namespace {

// Sections of a table that is followed: a PMT has one by the standard.
constexpr unsigned sections_max = 256;
constexpr unsigned pmt_sections_max = 4;

// More sections end in no packet of a stream that means anything.
constexpr unsigned events_of_packet_max = 16;

// What a change costs, in programs and streams that are looked at and handed on. A sender that
// changes its tables in every packet is followed at this pace: a section that is too dear is left
// for its next repetition.
constexpr std::uint64_t budget_max = 60'000;
constexpr std::uint64_t budget_of_packet = 2;
constexpr std::uint64_t change_cost = 16;

// Tells tables of one id and extension apart: the network, and for EIT the transport stream.
std::uint32_t sub_table_of(std::uint8_t id, Bytes bytes) {
    const Bytes body = section_body(bytes);
    const bool sdt = id == table_id::sdt_actual || id == table_id::sdt_other;
    if (sdt && body.size() >= 2)
        return read_16(body, 0);
    const bool eit = id >= table_id::eit_actual && id <= table_id::eit_last;
    if (eit && body.size() >= 4)
        return static_cast<std::uint32_t>(read_16(body, 0)) << 16 | read_16(body, 2);
    return 0;
}

} // namespace

class Tables::Impl {
  public:
    Impl(Tables& tables, EventSink& sink) : tables_(tables), sink_(sink) { build(); }

    void feed(const At& at, std::uint16_t pid, Bytes payload, bool unit_start);
    void disturbed(std::uint16_t pid);
    const std::map<std::uint16_t, ServiceNames>& services() const { return services_; }

  private:
    struct Pmt {
        std::uint16_t pid = null_pid;
        TableVersions versions{pmt_sections_max};
        Program program;
    };

    bool section(const At& at, std::uint16_t pid, const RawSection& raw);
    TableVersions* followed(std::uint16_t pid, const SectionHead& head);
    void accept(const At& at, std::uint16_t pid, const SectionHead& head, Bytes bytes,
                TableVersions& versions);
    void put_in_force(const At& at, const SectionHead& head, TableVersions& versions);
    std::vector<TableChange> changes(const SectionHead& head, const TableVersions& versions) const;
    void tell(const At& at, std::uint16_t pid, const SectionHead& head, TableVersions& versions);
    void follow_pat();
    void build();
    bool afford(const At& at);

    Tables& tables_;
    EventSink& sink_;
    std::map<std::uint16_t, SectionAssembler> assemblers_; // of pids that are wanted
    TableVersions pat_{sections_max};
    TableVersions cat_{sections_max};
    TableVersions nit_{sections_max};
    TableVersions sdt_{sections_max};
    std::map<std::uint16_t, Pmt> pmts_; // by program number
    std::optional<std::uint16_t> network_pid_;
    std::vector<std::uint16_t> cat_pids_;
    std::map<std::uint16_t, ServiceNames> services_;
    std::uint64_t size_ = 0; // programs and streams in force
    std::uint64_t budget_ = budget_max;
    std::uint64_t budget_index_ = 0; // packet up to which it has grown
    unsigned events_of_packet_ = 0;
};

void Tables::Impl::feed(const At& at, std::uint16_t pid, Bytes payload, bool unit_start) {
    events_of_packet_ = 0;
    // Sections that end in this packet may change which pids are wanted, this one among them.
    SectionAssembler assembler = std::exchange(assemblers_[pid], {});
    assembler.feed(at, payload, unit_start,
                   [&](const RawSection& raw) { return section(at, pid, raw); });
    if (tables_.wants(pid))
        assemblers_[pid] = std::move(assembler);
    else
        assemblers_.erase(pid);
}

void Tables::Impl::disturbed(std::uint16_t pid) {
    for (auto& [of, assembler] : assemblers_)
        if (pid == null_pid || of == pid)
            assembler.drop();
}

bool Tables::Impl::section(const At& at, std::uint16_t pid, const RawSection& raw) {
    if (raw.bytes.size() < short_header_size)
        return false;
    const SectionHead head = section_head(raw.bytes);
    TableVersions* versions = raw.cut ? nullptr : followed(pid, head);
    // What is in force has a right CRC.
    const bool repeated = versions && versions->holds(head, raw.bytes);
    const bool right = !raw.cut && (repeated || !head.has_crc || section_crc(raw.bytes) == 0);
    if (raw.doubtful && (!right || !head.has_crc))
        return false;
    if (events_of_packet_++ < events_of_packet_max) {
        SectionEvent event;
        event.pid = pid;
        event.table_id = head.table_id;
        event.extension = head.extension;
        event.sub_table = sub_table_of(head.table_id, raw.bytes);
        event.number = head.number;
        event.last_number = head.last_number;
        event.crc_right = right;
        event.version = head.version;
        event.current = head.current;
        event.begin = raw.begin;
        sink_.event(at, event);
    }
    if (versions && right && head.current)
        accept(at, pid, head, raw.bytes, *versions);
    return right;
}

TableVersions* Tables::Impl::followed(std::uint16_t pid, const SectionHead& head) {
    switch (head.table_id) {
    case table_id::pat:
        return pid == table_pid::pat ? &pat_ : nullptr;
    case table_id::cat:
        return pid == table_pid::cat ? &cat_ : nullptr;
    case table_id::nit_actual:
        return pid == network_pid_.value_or(table_pid::nit) ? &nit_ : nullptr;
    case table_id::sdt_actual:
        return pid == table_pid::sdt ? &sdt_ : nullptr;
    case table_id::pmt: {
        const auto pmt = pmts_.find(head.extension);
        return pmt != pmts_.end() && pmt->second.pid == pid ? &pmt->second.versions : nullptr;
    }
    default:
        return nullptr;
    }
}

void Tables::Impl::accept(const At& at, std::uint16_t pid, const SectionHead& head, Bytes bytes,
                          TableVersions& versions) {
    if (bytes.size() < long_header_size + crc_size)
        return;
    const bool repeated = versions.holds(head, bytes);
    if ((!repeated && !afford(at)) ||
        versions.take(head, bytes) != TableVersions::Outcome::in_force)
        return;
    const bool changed = !same_content(versions.before(), versions.sections());
    if (changed) {
        tell(at, pid, head, versions);
        put_in_force(at, head, versions);
    }
    versions.forget_before();
}

std::vector<TableChange> Tables::Impl::changes(const SectionHead& head,
                                               const TableVersions& versions) const {
    const Sections& before = versions.before();
    const Sections& now = versions.sections();
    switch (head.table_id) {
    case table_id::pat:
        return pat_changes(before, now);
    case table_id::pmt:
        return pmt_changes(before, now);
    case table_id::sdt_actual:
        return sdt_changes(before, now);
    case table_id::nit_actual:
        return nit_changes(before, now);
    default:
        return {};
    }
}

void Tables::Impl::tell(const At& at, std::uint16_t pid, const SectionHead& head,
                        TableVersions& versions) {
    if (versions.before().empty())
        return;
    TableChangedEvent event;
    event.pid = pid;
    event.table_id = head.table_id;
    event.version_unchanged = versions.same_version();
    event.changes = changes(head, versions);
    if (event.changes.empty() && !event.version_unchanged)
        return;
    if (head.table_id == table_id::pmt)
        event.programs = {head.extension};
    for (const TableChange& change : event.changes)
        if (change.number && (event.programs.empty() || event.programs.back() != *change.number))
            event.programs.push_back(static_cast<std::uint16_t>(*change.number));
    sink_.event(at, std::move(event));
}

void Tables::Impl::put_in_force(const At& at, const SectionHead& head, TableVersions& versions) {
    switch (head.table_id) {
    case table_id::pat:
        follow_pat();
        break;
    case table_id::cat:
        cat_pids_ = read_cat(versions.sections());
        break;
    case table_id::pmt: {
        Pmt& pmt = pmts_.at(head.extension);
        pmt.program = read_pmt(head.extension, pmt.pid, versions.sections());
        break;
    }
    case table_id::sdt_actual:
        services_ = read_sdt(versions.sections());
        if (tables_.tells_names_)
            sink_.event(
                at, NamesEvent{
                        std::make_shared<const std::map<std::uint16_t, ServiceNames>>(services_)});
        return;
    default:
        return; // says nothing about programs
    }
    build();
    sink_.event(at, ProgramsEvent{tables_.current_});
}

void Tables::Impl::follow_pat() {
    const Pat pat = read_pat(pat_.sections());
    network_pid_ = pat.network_pid;
    std::erase_if(pmts_, [&](const auto& entry) {
        const auto named = pat.pmt_pids.find(entry.first);
        return named == pat.pmt_pids.end() || named->second != entry.second.pid;
    });
    for (const auto& [number, pid] : pat.pmt_pids) {
        Pmt& pmt = pmts_[number];
        pmt.pid = pid;
        pmt.program.number = number;
        pmt.program.pmt_pid = pid;
    }
}

// Makes what is handed out, and which pids are wanted, from the tables in force.
void Tables::Impl::build() {
    const auto programs = std::make_shared<Programs>();
    programs->pat_in_force = !pat_.empty();
    programs->cat_in_force = !cat_.empty();
    programs->network_pid = network_pid_;
    programs->cat_pids = cat_pids_;
    programs->programs.reserve(pmts_.size());
    auto& wanted = tables_.wanted_;
    wanted.reset();
    for (const std::uint16_t pid : {table_pid::pat, table_pid::cat, table_pid::nit, table_pid::sdt,
                                    table_pid::eit, table_pid::rst, table_pid::tdt})
        wanted.set(pid);
    size_ = pmts_.size();
    for (const auto& [number, pmt] : pmts_) {
        programs->programs.push_back(pmt.program);
        wanted.set(pmt.pid);
        size_ += pmt.program.streams.size();
    }
    if (network_pid_)
        wanted.set(*network_pid_);
    wanted.reset(null_pid);
    std::erase_if(assemblers_, [&](const auto& entry) { return !wanted[entry.first]; });
    tables_.current_ = programs;
}

bool Tables::Impl::afford(const At& at) {
    if (at.index > budget_index_) {
        const std::uint64_t packets = std::min(at.index - budget_index_, budget_max);
        budget_ = std::min(budget_ + packets * budget_of_packet, budget_max);
        budget_index_ = at.index;
    }
    const std::uint64_t cost = size_ + change_cost;
    if (budget_ < cost)
        return false;
    budget_ -= cost;
    return true;
}

Tables::Tables(EventSink& sink) : impl_(std::make_unique<Impl>(*this, sink)) {}
Tables::~Tables() = default;

void Tables::feed(const At& at, std::uint16_t pid, std::span<const std::uint8_t> payload,
                  bool unit_start) {
    if (wants(pid))
        impl_->feed(at, pid, payload, unit_start);
}

void Tables::disturbed(std::uint16_t pid) {
    impl_->disturbed(pid);
}

const std::map<std::uint16_t, ServiceNames>& Tables::services() const {
    return impl_->services();
}

} // namespace quarn
