#include "command_line.h"

#include <algorithm>
#include <iterator>

#include "nearest.h"

namespace quarn::settings {

void refuse(const std::string& option, const std::string& why) {
    throw CLI::ValidationError(option, why);
}

CLI::Option* with_value(CLI::App& app, const std::string& name, const std::string& value,
                        const std::string& help,
                        const std::function<void(const std::string&)>& take) {
    const auto checked = [name, take](const std::string& text) {
        taken(name, [&] { take(text); });
    };
    return app.add_option_function<std::string>(name, checked, help)->type_name(value);
}

void flag(CLI::App& app, const std::string& name, const std::string& help, bool& value) {
    app.add_flag(name, value, help)->disable_flag_override();
}

void repeated(CLI::App& app, const std::string& name, const std::string& value,
              const std::string& help, std::vector<std::string>& values) {
    with_value(app, name, value, help, [&values](const std::string& text) {
        values.push_back(text);
    })->trigger_on_parse();
}

std::string complaint(const CLI::App& app, const CLI::ParseError& error,
                      const std::string& operands) {
    std::string text = error.what();
    if (const std::size_t many = text.find(": At Most 1 required"); many != std::string::npos)
        return text.substr(0, many) + " may be given only once";
    if (const std::size_t flag = text.find(" was given a disallowed"); flag != std::string::npos)
        return "--" + text.substr(0, flag) + " takes no value";
    if (!dynamic_cast<const CLI::ExtrasError*>(&error))
        return text;
    std::vector<std::string> options;
    for (const CLI::Option* const option : app.get_options())
        if (!option->get_positional())
            options.push_back(option->get_name());
    const std::vector<std::string> unknown = app.remaining();
    const std::string given = unknown.empty() ? "" : unknown[0].substr(0, unknown[0].find('='));
    std::vector<std::string> near = nearest(given, options);
    if (given.size() == 2) // -v
        std::copy_if(options.begin(), options.end(), std::back_inserter(near),
                     [&](const std::string& option) { return option.starts_with("-" + given); });
    text += near.empty() ? "; options are " + joined(options) + "; all else is a " + operands
                         : "; did you mean " + joined(near) + "?";
    return text;
}

} // namespace quarn::settings
