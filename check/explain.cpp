#include "explain.h"

#include <algorithm>
#include <string_view>

#include "reports/rule_pages.h"

namespace quarn::check {

namespace {

/// Markdown as it is, but for the marks of what stands out.
void append_line(std::string& out, std::string_view line, const Colours& colours) {
    const bool heading = line.starts_with("## ");
    if (heading) {
        line.remove_prefix(3);
        out += colours.heading;
    }
    bool bold = false;
    while (!line.empty()) {
        const std::size_t marks = line.find("**");
        out += line.substr(0, marks);
        if (marks == std::string_view::npos)
            break;
        bold = !bold;
        out += bold ? colours.heading : colours.off;
        line.remove_prefix(marks + 2);
    }
    if (heading)
        out += colours.off;
    out += '\n';
}

/// How bad it is, which pages on several rules cannot say of the one asked for.
std::string weight(const RuleInfo& rule) {
    std::string text = rule.severity == Severity::error     ? "At worst an error"
                       : rule.severity == Severity::warning ? "At worst a warning"
                                                            : "Always info";
    return text + (rule.priority ? ", priority " + std::to_string(rule.priority) : "") + ".\n";
}

} // namespace

std::string explain(Rule rule, const Colours& colours) {
    const std::string_view page = rule_page(rule);
    if (page.empty())
        return "There is no page on " + std::string(info(rule).id) + ".\n";
    std::string out;
    for (std::string_view text = page; !text.empty();) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        append_line(out, text.substr(0, end), colours);
        if (text.starts_with("## "))
            out += weight(info(rule));
        text.remove_prefix(std::min(text.size(), end + 1));
    }
    return out;
}

} // namespace quarn::check
