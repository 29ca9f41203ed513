#pragma once
// Base of every parameter set: options are declared in code and bound to plain members of the
// derived class; a configuration file and the command line write into those members, the command
// line last, so it wins. The framework never prints and never exits: it reports a flag word and two
// texts (errors and notices) and lets the caller decide.

#include <cstdint>
#include <functional>
#include <istream>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include <boost/any.hpp>
#include <boost/program_options.hpp>

namespace Common {

class Parameters {
public:
    // Bits of the flag word returned by ParseArguments.
    enum Flags : std::uint32_t {
        ParseFailed = 0x01,       // required option missing, named config file missing, or ValidateParams false
        UnexpectedOption = 0x02,  // unknown option in either source
        ConfigReadError = 0x04,   // the config file could not be read
        SyntaxError = 0x08,       // bad syntax in the config file or on the command line
        ProcessError = 0x10,      // any other failure while handling either source
        HelpRequested = 0x20,     // --help, or no arguments at all
        VersionRequested = 0x40,  // --version
        NotParsed = 0x80,         // set from construction until parsing begins
    };

    // Declaration mode word of AddOption. Neither CmdLine nor Config means both sources.
    enum Mode : unsigned {
        CmdLine = 1,
        Config = 2,
        Flag = 4,      // value-less switch, bool storage, command line only
        Required = 8,  // must be seen in a source it is declared for
    };

    explicit Parameters(const std::string& cmdline_caption = "Command line parameters",
                        const std::string& config_caption = "Configuration file parameters.");
    // A copy carries the option maps along, but their bindings still point into the original: only
    // the members of a copy are to be used.
    Parameters(const Parameters&) = default;

    // Derived classes declare their options here, calling their base first.
    virtual void InitOptions() = 0;
    virtual ~Parameters() = default;
    // Checks the values after both sources were read.
    virtual bool ValidateParams() = 0;
    // Writes the options as a configuration file; only configuration options unless all_options.
    virtual void SaveConfig(const std::string& path, const std::vector<std::string>& comment_lines,
                            bool all_options) const;

    // Parses an optional ready config stream (else config_name, else --config/-c, else
    // default_config) and then argv. Returns the flag word. Must be called once per object, because
    // it declares the options itself.
    std::uint32_t ParseArguments(std::istream* stream, const std::string& config_name, int argc,
                                 const char* const* argv, const std::string& data_subdir);

    // Second-stage read used by workflow selection: the file's values, then the command line again on
    // top. Reports nothing; library exceptions propagate. A file that cannot be opened reads as empty.
    void ReadConfigFile(const std::string& path, int argc, const char* const* argv);

    const std::string& ErrorText() const { return error_text; }
    const std::string& MessageText() const { return message_text; }
    std::uint32_t GetFlags() const { return flags; }

    // Declared option names in declaration order, and the printed value of one of them (strings as
    // they are, floats through "%f", other types in decimal). Throws for an undeclared name.
    const std::vector<std::string>& OptionNames() const { return option_names; }
    std::string PrintOption(const std::string& name) const;
    bool IsConfigOption(const std::string& name) const;

    std::string config_file;
    std::string data_path;

protected:
    template <typename T>
    void AddOption(const std::string& name, const std::string& description, T& member,
                   unsigned mode = 0);
    // A configuration-file option that is accepted and thrown away.
    void AddIgnoredOption(const std::string& name);

    boost::program_options::options_description cmdline_options;
    boost::program_options::options_description config_options;
    std::map<std::string, bool> required;
    std::map<std::string, boost::any> values;
    std::map<std::string, std::function<std::string(const boost::any&)>> printers;
    std::vector<std::string> option_names;
    std::string default_config;
    std::string help_header;
    std::uint32_t flags = NotParsed;
    std::string error_text;
    std::string message_text;

private:
    static std::string printValue(const std::string& value) { return value; }
    static std::string printValue(float value);
    static std::string printValue(bool value) { return value ? "1" : "0"; }
    template <typename T>
    static std::string printValue(T value) {
        return std::to_string(value);
    }

    // Applies the mode rules; throws for the two programming errors of flag declarations.
    static unsigned normaliseMode(unsigned mode, bool is_bool);
    void registerOption(const std::string& key, boost::any pointer,
                        std::function<std::string(const boost::any&)> printer);
    void markRequired(const boost::program_options::variables_map& map);
};

template <typename T>
void Parameters::AddOption(const std::string& name, const std::string& description, T& member,
                           unsigned mode) {
    static_assert(std::is_same<T, std::string>::value || std::is_same<T, std::uint64_t>::value ||
                      std::is_same<T, float>::value || std::is_same<T, int>::value ||
                      std::is_same<T, bool>::value,
                  "options are stored as string, unsigned 64-bit, float, int or bool");
    namespace po = boost::program_options;
    mode = normaliseMode(mode, std::is_same<T, bool>::value);
    const std::string key = name.substr(0, name.find(','));
    if (mode & Required) {
        required[key] = false;
    }
    // No default value goes to the library: the member's constructed value is the default, so a
    // source that does not mention the option leaves it alone.
    if (mode & Config) {
        config_options.add_options()(name.c_str(), po::value<T>(&member), description.c_str());
    }
    if (mode & CmdLine) {
        if constexpr (std::is_same<T, bool>::value) {
            if (mode & Flag) {
                cmdline_options.add_options()(name.c_str(), po::bool_switch(&member), description.c_str());
            } else {
                cmdline_options.add_options()(name.c_str(), po::value<T>(&member), description.c_str());
            }
        } else {
            cmdline_options.add_options()(name.c_str(), po::value<T>(&member), description.c_str());
        }
    }
    registerOption(key, boost::any(&member),
                   [](const boost::any& any) { return printValue(*boost::any_cast<T*>(any)); });
}

}  // namespace Common
