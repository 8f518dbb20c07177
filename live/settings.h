// What quarn-live is told by its configuration file and its command line.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "alert_settings.h"
#include "cuts/settings.h"
#include "inputs/endpoint.h"
#include "inputs/url.h"
#include "measure/options.h"

namespace quarn::live {

struct InputSettings {
    std::string name; // free text; the URL without secrets where none was given
    inputs::InputUrl url;
    Options measure;
    AlertSettings alerts;
    std::optional<std::string> write_expect; // file that tells at the end what it was like
    cuts::Settings cuts;

    /// Nothing differs that was written.
    bool operator==(const InputSettings& other) const;
};

/// What is said of cuts, in the file for all inputs or one, or on the command line.
struct CutsGiven {
    std::optional<std::string> directory; // empty: none
    std::optional<double> seconds;
    std::optional<std::uint64_t> files, bytes, memory;

    void apply(cuts::Settings& cuts) const;
};

struct Settings {
    std::vector<InputSettings> inputs;
    std::optional<inputs::Endpoint> http;
    std::optional<std::string> findings; // file, "-": standard output
    std::optional<int> syslog;           // facility
    std::optional<std::string> exec;     // command for each finding
    std::optional<std::chrono::milliseconds> run_for;
    std::optional<std::string> write_expect; // of the one input
    unsigned loops = 0; // threads that read inputs, 0: as many as processors, at most 4
};

/// What stands on the command line. What is said there goes before the file.
struct CommandLine {
    std::optional<std::string> config;
    std::vector<std::string> urls;
    bool check_config = false;
    Settings settings; // without inputs
    CutsGiven cuts;
};

/// Facility of syslog by its name, address to listen at. Throw settings::WrongValue.
int facility_of(const std::string& name);
inputs::Endpoint server_of(const std::string& text);

/// The settings of a run: those of the file, if one is named, and of the command line. Reads the
/// file anew each time. Throws settings::WrongValue.
Settings settings_of(const CommandLine& line);

} // namespace quarn::live
