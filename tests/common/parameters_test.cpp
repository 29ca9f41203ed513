#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/executable_path.h"
#include "common/parameters.h"
#include "test_support.h"

using Common::Parameters;
using TestSupport::ErrorOf;
using TestSupport::TempDir;

namespace {

// A small parameter set covering every storage type and source.
class TestParams : public Parameters {
public:
    void InitOptions() override {
        AddOption("name,n", "a name", name);                   // both sources
        AddOption("count", "a count", count, CmdLine | Config);  // both sources, explicitly
        AddOption("scale", "a scale", scale);
        AddOption("offset", "an offset", offset, Config);
        AddOption("enabled", "a bool value", enabled);
        AddOption("switch,w", "a switch", flag, Flag);
        AddOption("cmd_only", "command line only", cmd_only, CmdLine);
        AddOption("needed", "required on the command line", needed, CmdLine | Required);
        AddOption("needed_anywhere", "required in either source", needed_anywhere, Required);
        AddIgnoredOption("ignored");
    }
    bool ValidateParams() override { return valid; }
    using Parameters::AddOption;
    using Parameters::default_config;
    using Parameters::help_header;

    std::string name = "ctor", cmd_only, needed = "n", needed_anywhere = "n";
    std::uint64_t count = 7;
    float scale = 1.5f;
    int offset = -3;
    bool enabled = true, flag = false, valid = true;
};

std::uint32_t Parse(TestParams& params, std::vector<std::string> args, std::istream* stream = nullptr) {
    args.insert(args.begin(), "prog");
    std::vector<const char*> argv;
    for (const auto& arg : args) argv.push_back(arg.c_str());
    return params.ParseArguments(stream, "", static_cast<int>(argv.size()), argv.data(), "");
}

const std::vector<std::string> kRequired = {"--needed", "x", "--needed_anywhere", "y"};

std::vector<std::string> With(std::vector<std::string> args) {
    args.insert(args.end(), kRequired.begin(), kRequired.end());
    return args;
}

}  // namespace

// The printed values of the named options (and of the data path), joined by spaces.
std::string Values(const TestParams& params, const std::string& names) {
    std::istringstream in(names);
    std::string out;
    for (std::string name; in >> name;) {
        out += (out.empty() ? "" : " ") + (name == "data_path" ? params.data_path : params.PrintOption(name));
    }
    return out;
}

// One parse per row: the configuration text (none when null), the command line, and what comes out.
// An expected error ending in "..." is compared as a prefix (the rest is the library's own text).
TEST(Parameters, ParseOutcomesAndTheirTexts) {
    using P = Parameters;
    const std::string missing_both = "Missing required option 'needed'.\nMissing required option 'needed_anywhere'.\n";
    const std::string default_data = (Common::ExecutableDirectory().parent_path() / "data").string();
    const struct {
        const char* name;
        const char* config;
        std::vector<std::string> args;
        std::uint32_t flags;
        std::string error, message, options, values;
    } cases[] = {
        {"command line, then file, then constructor", "name = from_file\ncount = 11\nscale = 2.5\noffset = 9\n",
         With({"--count", "12"}), 0, "", "", "name count scale offset enabled switch", "from_file 12 2.500000 9 1 0"},
        {"flags, bool values and short names", nullptr, With({"-w", "--enabled", "false", "-n", "short"}), 0, "", "",
         "switch enabled name", "1 0 short"},
        {"required options missing, in key order", nullptr, {"--count", "3"}, P::ParseFailed, missing_both, "", "", ""},
        {"a required option counts in the config only where declared for it", "needed = a\nneeded_anywhere = b\n",
         {"--count", "3"}, P::ParseFailed | P::UnexpectedOption, "Missing required option 'needed'.\n",
         "Unexpected option 'needed' found in configuration file.\n", "needed_anywhere", "b"},
        {"unexpected options are notices in both sources",
         "bogus = 1\nswitch = 1\ncmd_only = z\nignored = 4\n[sec]\nkey = 2\n",
         With({"--unknown", "5", "--other=1", "-y"}), P::UnexpectedOption, "",
         "Unexpected option 'bogus' found in configuration file.\n"
         "Unexpected option 'switch' found in configuration file.\n"
         "Unexpected option 'cmd_only' found in configuration file.\n"
         "Unexpected option 'sec.key' found in configuration file.\n"
         "Unexpected option 'unknown' found on command line.\n"
         "Unexpected option 'other' found on command line.\n"
         "Unexpected option '-y' found on command line.\n", "cmd_only", ""},
        {"a config-only option is unknown on the command line", nullptr, With({"--offset", "4"}), P::UnexpectedOption,
         "", "Unexpected option 'offset' found on command line.\n", "offset", "-3"},
        {"config syntax", "name\n", With({}), P::SyntaxError,
         "Error parsing config file: 'the options configuration file contains an invalid line 'name''.\n", "", "", ""},
        {"config value", "count = many\n", With({}), P::ProcessError, "Error processing config file: '...", "", "count", "7"},
        // A failed store marks nothing as seen, so the required options are reported missing too.
        {"command-line value", nullptr, With({"--count", "many"}), P::ProcessError | P::ParseFailed,
         "Error processing command line: 'the argument ('many') for option '--count' is invalid'.\n" + missing_both, "", "", ""},
        // --config last has no value: the scan ignores it and the library reports the syntax.
        {"--config without a value", nullptr, {"--needed", "x", "--needed_anywhere", "y", "--config"},
         P::SyntaxError | P::ParseFailed,
         "Error parsing command line: 'the required argument for option '--config' is missing'.\n" + missing_both, "", "", ""},
        // -d twice: the scan takes the first, the library rejects the repetition.
        {"data path twice", nullptr, With({"-d", "/first", "-d", "/second"}), P::ProcessError | P::ParseFailed,
         "Error processing command line: 'option '--data_path' cannot be specified more than once'.\n...", "", "data_path", "/first"},
        // The equals form is not seen ahead of the parse, but the member holds it afterwards.
        {"data path in the equals form", nullptr, With({"--data_path=/elsewhere"}), 0, "", "", "data_path", "/elsewhere"},
        {"no data path", nullptr, With({}), 0, "", "", "data_path", default_data},
        {"version", nullptr, With({"--version"}), P::VersionRequested, "", "Version requested.\n", "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::istringstream config(c.config ? c.config : "");
        TestParams params;
        EXPECT_EQ(Parse(params, c.args, c.config ? &config : nullptr), c.flags);
        const std::string& error = params.ErrorText();
        if (c.error.size() >= 3 && c.error.compare(c.error.size() - 3, 3, "...") == 0) {
            EXPECT_EQ(error.rfind(c.error.substr(0, c.error.size() - 3), 0), 0u) << error;
        } else {
            EXPECT_EQ(error, c.error);
        }
        EXPECT_EQ(params.MessageText(), c.message);
        EXPECT_EQ(Values(params, c.options), c.values);
    }
}

TEST(Parameters, ConfigFileLookup) {
    TempDir dir;
    const auto file = dir.File("a.cfg", "name = from_file\n");
    dir.File("b.cfg", "count = 99\n");
    dir.File("default.cfg", "scale = 4.25\n");
    const auto missing = (dir.path / "none.cfg").string();
    const std::string data = dir.Str();
    const struct {
        std::vector<std::string> args;
        std::uint32_t flags;
        std::string error, config_file, options, values, default_config = "";
    } cases[] = {
        {With({"--config", file}), 0, "", file, "name", "from_file"},
        // The equals form is invisible to the scan: the file is not read, yet its name is kept.
        {With({"--config=" + file}), 0, "", file, "name", "ctor"},
        // A bare name is looked up in the data path.
        {With({"-d", data, "-c", "b.cfg"}), 0, "", data + "/b.cfg", "count data_path", "99 " + data},
        // The program's default file, when none is named, is looked up there too.
        {With({"-d", data}), 0, "", data + "/default.cfg", "scale", "4.250000", "default.cfg"},
        // A missing file is reported and still opened.
        {With({"--config", missing}), Parameters::ParseFailed | Parameters::ConfigReadError,
         "Config file: " + missing + " does not exist!\nError reading config file: 'can not read options "
         "configuration file '" + missing + "''.\n", missing, "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[1]);
        TestParams params;
        params.default_config = c.default_config;
        EXPECT_EQ(Parse(params, c.args), c.flags);
        EXPECT_EQ(params.ErrorText(), c.error);
        EXPECT_EQ(params.config_file, c.config_file);
        EXPECT_EQ(Values(params, c.options), c.values);
    }
    // No arguments at all: nothing is parsed, required options are missing, no help; the data path
    // takes the subfolder.
    TestParams params;
    EXPECT_EQ(params.ParseArguments(nullptr, "", 0, nullptr, "sub"), static_cast<std::uint32_t>(Parameters::ParseFailed));
    EXPECT_EQ(params.data_path, (Common::ExecutableDirectory().parent_path() / "data" / "sub").string());
}

TEST(Parameters, HelpValidationAndDeclarationRules) {
    // The bare program name shows the command-line help, without the configuration-only options.
    std::istringstream config("name = x\n");
    TestParams params;
    params.help_header = "Usage: prog\n";
    EXPECT_EQ(Parse(params, {}, &config), std::uint32_t(Parameters::HelpRequested | Parameters::ParseFailed));
    EXPECT_EQ(params.MessageText().rfind("Usage: prog\nCommand line parameters:\n", 0), 0u);
    EXPECT_NE(params.MessageText().find("--needed arg"), std::string::npos);
    EXPECT_EQ(params.MessageText().find("--offset"), std::string::npos);
    EXPECT_EQ(params.name, "x");

    TestParams invalid;
    invalid.valid = false;
    EXPECT_EQ(Parse(invalid, With({})), static_cast<std::uint32_t>(Parameters::ParseFailed));
    EXPECT_TRUE(invalid.ErrorText().empty());

    std::string text;
    bool value = false;
    EXPECT_EQ(ErrorOf([&] { params.AddOption("bad_flag", "test", text, Parameters::Flag); }),
              "Flag options must have a storage type of bool.");
    EXPECT_EQ(ErrorOf([&] { params.AddOption("bad_flag2", "test", value, Parameters::Flag | Parameters::Config); }),
              "Flag options cannot also be configuration options.");
}

// The saved text: comment lines, then each configuration option (or every option) as printed.
TEST(Parameters, SaveConfigWritesPrintedValues) {
    TempDir dir;
    TestParams params;
    Parse(params, With({"-w"}));
    const auto path = (dir.path / "saved.cfg").string();
    params.SaveConfig(path, {"first", "second"}, false);
    EXPECT_EQ(TestSupport::ReadText(path), "# first\n# second\n\nname\t\t=\tctor\ncount\t\t=\t7\nscale\t\t=\t1.500000\n"
                                           "offset\t\t=\t-3\nenabled\t\t=\t1\nneeded_anywhere\t\t=\ty\n");
    params.SaveConfig(path, {}, true);
    EXPECT_EQ(TestSupport::ReadText(path), "name\t\t=\tctor\ncount\t\t=\t7\nscale\t\t=\t1.500000\noffset\t\t=\t-3\nenabled\t\t=\t1\n"
                                           "switch\t\t=\t1\ncmd_only\t\t=\t\nneeded\t\t=\tx\nneeded_anywhere\t\t=\ty\n");
}
