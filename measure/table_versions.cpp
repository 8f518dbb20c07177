// Puts a table in force when all its sections of one version are there.
#include "table_versions.h"

#include <algorithm>
#include <utility>

namespace quarn {

bool TableVersions::Version::fits(const SectionHead& head) const {
    return !sections.empty() && version == head.version && extension == head.extension &&
           last_number == head.last_number;
}

bool TableVersions::holds(const SectionHead& head, Bytes bytes) const {
    if (!in_force_.fits(head) || head.number > head.last_number)
        return false;
    const auto& held = in_force_.sections[head.number];
    return std::equal(held.begin(), held.end(), bytes.begin(), bytes.end());
}

TableVersions::Outcome TableVersions::take(const SectionHead& head, Bytes bytes) {
    if (head.number > head.last_number || head.last_number >= max_sections_)
        return Outcome::repeated;
    if (in_force_.fits(head)) {
        next_ = {}; // what was under way has been given up
        if (holds(head, bytes))
            return Outcome::repeated;
        before_ = in_force_.sections;
        in_force_.sections[head.number].assign(bytes.begin(), bytes.end());
        same_version_ = true;
        return Outcome::in_force;
    }
    if (!next_.fits(head)) {
        next_ = {head.version, head.last_number, head.extension, {}, 0};
        next_.sections.resize(head.last_number + 1u);
    }
    auto& section = next_.sections[head.number];
    next_.have += section.empty() ? 1 : 0;
    section.assign(bytes.begin(), bytes.end());
    if (next_.have < next_.sections.size())
        return Outcome::waiting;
    same_version_ =
        !empty() && in_force_.version == next_.version && in_force_.extension == next_.extension;
    before_ = std::exchange(in_force_, std::exchange(next_, {})).sections;
    return Outcome::in_force;
}

} // namespace quarn
