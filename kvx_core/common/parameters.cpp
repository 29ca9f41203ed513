#include "common/parameters.h"

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include "common/executable_path.h"

namespace po = boost::program_options;
namespace fs = boost::filesystem;

namespace Common {

namespace {

// Finds "<option> <value>" in argv ahead of the real parse. Only the separated form is seen, and an
// option in the last position has no value and is left to the library's syntax check.
std::string scanArgv(int argc, const char* const* argv, const char* long_name, const char* short_name) {
    if (argv == nullptr) {
        return {};
    }
    for (int i = 1; i < argc - 1; ++i) {
        if (argv[i] == nullptr) {
            continue;
        }
        const std::string arg = argv[i];
        if (arg == long_name || arg == short_name) {
            return argv[i + 1] ? std::string(argv[i + 1]) : std::string();
        }
    }
    return {};
}

std::string prefixIfBare(const std::string& name, const std::string& directory) {
    if (name.empty() || fs::path(name).has_parent_path()) {
        return name;
    }
    return (fs::path(directory) / name).string();
}

// Names of the options the library could not place: unknown options, and stray words that no option
// took. A word right after an unknown "--name" is most likely its value and is not named again.
std::vector<std::string> unexpectedNames(const po::parsed_options& parsed) {
    std::vector<std::string> names;
    bool after_unknown = false;
    for (const auto& option : parsed.options) {
        if (option.unregistered) {
            names.push_back(option.string_key);
            after_unknown = option.original_tokens.size() == 1 &&
                            option.original_tokens.front().find('=') == std::string::npos;
        } else if (option.position_key >= 0 && option.string_key.empty()) {
            if (!after_unknown) {
                for (const auto& token : option.original_tokens) {
                    names.push_back(token);
                }
            }
            after_unknown = false;
        } else {
            after_unknown = false;
        }
    }
    return names;
}

}  // namespace

Parameters::Parameters(const std::string& cmdline_caption, const std::string& config_caption)
    : cmdline_options(cmdline_caption, po::options_description::m_default_line_length,
                      po::options_description::m_default_line_length / 2),
      config_options(config_caption, po::options_description::m_default_line_length,
                     po::options_description::m_default_line_length / 2) {}

unsigned Parameters::normaliseMode(unsigned mode, bool is_bool) {
    if (mode & Flag) {
        if (!is_bool) {
            throw std::runtime_error("Flag options must have a storage type of bool.");
        }
        if (mode & Config) {
            throw std::runtime_error("Flag options cannot also be configuration options.");
        }
        mode |= CmdLine;
    }
    if ((mode & (CmdLine | Config)) == 0) {
        mode |= CmdLine | Config;
    }
    return mode;
}

void Parameters::registerOption(const std::string& key, boost::any pointer,
                                std::function<std::string(const boost::any&)> printer) {
    values[key] = std::move(pointer);
    printers[key] = std::move(printer);
    option_names.push_back(key);
}

std::string Parameters::printValue(float value) {
    char buffer[64];
    std::snprintf(buffer, sizeof(buffer), "%f", static_cast<double>(value));
    return buffer;
}

void Parameters::AddIgnoredOption(const std::string& name) {
    config_options.add_options()(name.c_str(), po::value<std::string>(),
                                 "Allowed, but ignored by this application.");
}

std::string Parameters::PrintOption(const std::string& name) const {
    const auto value = values.find(name);
    const auto printer = printers.find(name);
    if (value == values.end() || printer == printers.end()) {
        throw std::runtime_error("Unknown option: " + name);
    }
    return printer->second(value->second);
}

bool Parameters::IsConfigOption(const std::string& name) const {
    return config_options.find_nothrow(name, false) != nullptr;
}

void Parameters::markRequired(const po::variables_map& map) {
    for (auto& entry : required) {
        if (map.count(entry.first)) {
            entry.second = true;
        }
    }
}

std::uint32_t Parameters::ParseArguments(std::istream* stream, const std::string& config_name, int argc,
                                         const char* const* argv, const std::string& data_subdir) {
    flags &= ~static_cast<std::uint32_t>(NotParsed);
    InitOptions();

    cmdline_options.add_options()("help,h", "produce help message")("version,v", "print version number")(
        "config,c", po::value<std::string>(&config_file), "Config file to use")(
        "data_path,d", po::value<std::string>(&data_path),
        "Path to use for loading any data files the application requires.");

    data_path = scanArgv(argc, argv, "--data_path", "-d");
    if (data_path.empty()) {
        fs::path path = ExecutableDirectory().parent_path() / "data";
        if (!data_subdir.empty()) {
            path /= data_subdir;
        }
        data_path = path.string();
    }

    // Find the config source; the first match wins.
    std::unique_ptr<std::ifstream> owned_stream;
    std::istream* config_stream = stream;
    std::string config_path;
    bool have_config = stream != nullptr;
    bool skip_sources = false;
    if (!have_config) {
        if (!config_name.empty()) {
            config_path = config_name;
            have_config = true;
        } else if (argv == nullptr) {
            skip_sources = true;
        } else {
            config_path = scanArgv(argc, argv, "--config", "-c");
            if (config_path.empty() && !default_config.empty()) {
                config_path = default_config;
                config_file = default_config;
            }
            if (!config_path.empty()) {
                config_path = prefixIfBare(config_path, data_path);
                if (!fs::exists(config_path)) {
                    error_text += "Config file: " + config_path + " does not exist!\n";
                    flags |= ParseFailed;
                }
                have_config = true;
            }
        }
    }

    if (!skip_sources && have_config) {
        try {
            if (config_stream == nullptr) {
                // Opened even when known to be missing: the failure then reads as a read error too.
                owned_stream = std::make_unique<std::ifstream>(config_path);
                if (!owned_stream->is_open()) {
                    throw po::reading_file(config_path.c_str());
                }
                config_stream = owned_stream.get();
            }
            const po::parsed_options parsed = po::parse_config_file(*config_stream, config_options, true);
            po::variables_map config_map;
            po::store(parsed, config_map);
            markRequired(config_map);
            po::notify(config_map);
            for (const auto& name : unexpectedNames(parsed)) {
                message_text += "Unexpected option '" + name + "' found in configuration file.\n";
                flags |= UnexpectedOption;
            }
        } catch (const po::reading_file& e) {
            error_text += std::string("Error reading config file: '") + e.what() + "'.\n";
            flags |= ConfigReadError;
        } catch (const po::invalid_syntax& e) {
            error_text += std::string("Error parsing config file: '") + e.what() + "'.\n";
            flags |= SyntaxError;
        } catch (const std::exception& e) {
            error_text += std::string("Error processing config file: '") + e.what() + "'.\n";
            flags |= ProcessError;
        }
    }

    if (!skip_sources && argc != 0 && argv != nullptr) {
        po::variables_map cmdline_map;
        try {
            const po::parsed_options parsed =
                po::command_line_parser(argc, argv).options(cmdline_options).allow_unregistered().run();
            po::store(parsed, cmdline_map);
            markRequired(cmdline_map);
            po::notify(cmdline_map);
            for (const auto& name : unexpectedNames(parsed)) {
                message_text += "Unexpected option '" + name + "' found on command line.\n";
                flags |= UnexpectedOption;
            }
        } catch (const po::invalid_syntax& e) {
            error_text += std::string("Error parsing command line: '") + e.what() + "'.\n";
            flags |= SyntaxError;
        } catch (const std::exception& e) {
            error_text += std::string("Error processing command line: '") + e.what() + "'.\n";
            flags |= ProcessError;
        }
        if (cmdline_map.count("version")) {
            message_text += "Version requested.\n";
            flags |= VersionRequested;
        }
        if (cmdline_map.count("help") || argc == 1) {
            std::ostringstream help;
            help << cmdline_options;
            message_text += help_header + help.str();
            flags |= HelpRequested;
        }
    }

    for (const auto& entry : required) {
        if (!entry.second) {
            error_text += "Missing required option '" + entry.first + "'.\n";
            flags |= ParseFailed;
        }
    }

    config_file = prefixIfBare(config_file, data_path);

    if (!ValidateParams()) {
        flags |= ParseFailed;
    }
    return flags;
}

void Parameters::ReadConfigFile(const std::string& path, int argc, const char* const* argv) {
    {
        std::ifstream file(path);
        // An unopened stream reads as an empty file.
        po::variables_map config_map;
        po::store(po::parse_config_file(file, config_options, true), config_map);
        po::notify(config_map);
    }
    config_file = path;

    // A model named without a directory lives beside the configuration that names it.
    const auto model = values.find("model_file");
    if (model != values.end()) {
        if (auto* model_file = boost::any_cast<std::string*>(&model->second)) {
            **model_file = prefixIfBare(**model_file, fs::path(path).parent_path().string());
        }
    }

    // The command line goes back on top, so it keeps priority over the file.
    if (argc != 0 && argv != nullptr) {
        po::variables_map cmdline_map;
        po::store(po::command_line_parser(argc, argv).options(cmdline_options).allow_unregistered().run(),
                  cmdline_map);
        po::notify(cmdline_map);
    }
}

void Parameters::SaveConfig(const std::string& path, const std::vector<std::string>& comment_lines,
                            bool all_options) const {
    std::ofstream out(path, std::ios::out | std::ios::trunc);
    if (!out) {
        throw std::runtime_error("Error: Failed to open file \"" + path + "\" for writing");
    }
    if (!comment_lines.empty()) {
        for (const auto& line : comment_lines) {
            out << "# " << line << '\n';
        }
        out << '\n';
    }
    for (const auto& name : option_names) {
        if (!all_options && !IsConfigOption(name)) {
            continue;
        }
        out << name << "\t\t=\t" << PrintOption(name) << '\n';
    }
    if (!out) {
        throw std::runtime_error("Error: Failed to write file \"" + path + "\"");
    }
}

}  // namespace Common
