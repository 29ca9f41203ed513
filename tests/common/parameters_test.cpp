#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "common/executable_path.h"
#include "common/parameters.h"

namespace fs = boost::filesystem;
using Common::Parameters;

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

    void SetDefaultConfig(const std::string& name) { default_config = name; }
    void SetHelpHeader(const std::string& text) { help_header = text; }

    template <typename T>
    void Declare(const std::string& name, T& member, unsigned mode) {
        AddOption(name, "test", member, mode);
    }

    std::string name = "ctor";
    std::uint64_t count = 7;
    float scale = 1.5f;
    int offset = -3;
    bool enabled = true;
    bool flag = false;
    std::string cmd_only;
    std::string needed = "n";
    std::string needed_anywhere = "n";
    bool valid = true;
};

class TempDir {
public:
    TempDir() : path(fs::temp_directory_path() / fs::unique_path("kvx-params-%%%%-%%%%")) {
        fs::create_directories(path);
    }
    ~TempDir() { fs::remove_all(path); }
    std::string File(const std::string& name, const std::string& content) const {
        const auto file = (path / name).string();
        std::ofstream(file) << content;
        return file;
    }
    fs::path path;
};

std::uint32_t Parse(TestParams& params, std::vector<std::string> args, std::istream* stream = nullptr,
                    const std::string& config_name = "") {
    args.insert(args.begin(), "prog");
    std::vector<const char*> argv;
    for (const auto& arg : args) {
        argv.push_back(arg.c_str());
    }
    return params.ParseArguments(stream, config_name, static_cast<int>(argv.size()), argv.data(), "");
}

const std::vector<std::string> kRequired = {"--needed", "x", "--needed_anywhere", "y"};

std::vector<std::string> With(std::vector<std::string> args) {
    args.insert(args.end(), kRequired.begin(), kRequired.end());
    return args;
}

}  // namespace

TEST(Parameters, PrecedenceIsCommandLineThenConfigThenConstructor) {
    std::istringstream config("name = from_file\ncount = 11\nscale = 2.5\noffset = 9\n");
    TestParams params;
    const auto flags = Parse(params, With({"--count", "12"}), &config);
    EXPECT_EQ(flags, 0u) << params.ErrorText() << params.MessageText();
    EXPECT_EQ(params.name, "from_file");  // file beats constructor
    EXPECT_EQ(params.count, 12u);         // command line beats file
    EXPECT_FLOAT_EQ(params.scale, 2.5f);
    EXPECT_EQ(params.offset, 9);
    EXPECT_TRUE(params.enabled);  // untouched by both: constructor value
    EXPECT_FALSE(params.flag);
    EXPECT_TRUE(params.ErrorText().empty());
    EXPECT_TRUE(params.MessageText().empty());
}

TEST(Parameters, FlagsBoolValuesAndShortNames) {
    TestParams params;
    Parse(params, With({"-w", "--enabled", "false", "-n", "short"}));
    EXPECT_TRUE(params.flag);
    EXPECT_FALSE(params.enabled);
    EXPECT_EQ(params.name, "short");
}

TEST(Parameters, MissingRequiredOptionsInKeyOrder) {
    TestParams params;
    const auto flags = Parse(params, {"--count", "3"});
    EXPECT_EQ(flags, static_cast<std::uint32_t>(Parameters::ParseFailed));
    EXPECT_EQ(params.ErrorText(), "Missing required option 'needed'.\nMissing required option 'needed_anywhere'.\n");
}

TEST(Parameters, RequiredOptionCountsInConfigOnlyWhereDeclaredForIt) {
    std::istringstream config("needed = a\nneeded_anywhere = b\n");
    TestParams params;
    const auto flags = Parse(params, {"--count", "3"}, &config);
    EXPECT_EQ(flags, static_cast<std::uint32_t>(Parameters::ParseFailed | Parameters::UnexpectedOption));
    EXPECT_EQ(params.ErrorText(), "Missing required option 'needed'.\n");
    EXPECT_EQ(params.MessageText(), "Unexpected option 'needed' found in configuration file.\n");
    EXPECT_EQ(params.needed_anywhere, "b");
}

TEST(Parameters, UnexpectedOptionsAreNoticesInBothSources) {
    std::istringstream config("bogus = 1\nswitch = 1\ncmd_only = z\nignored = 4\n[sec]\nkey = 2\n");
    TestParams params;
    const auto flags = Parse(params, With({"--unknown", "5", "--other=1", "-y"}), &config);
    EXPECT_EQ(flags, static_cast<std::uint32_t>(Parameters::UnexpectedOption));
    EXPECT_TRUE(params.ErrorText().empty());
    EXPECT_EQ(params.MessageText(),
              "Unexpected option 'bogus' found in configuration file.\n"
              "Unexpected option 'switch' found in configuration file.\n"
              "Unexpected option 'cmd_only' found in configuration file.\n"
              "Unexpected option 'sec.key' found in configuration file.\n"
              "Unexpected option 'unknown' found on command line.\n"
              "Unexpected option 'other' found on command line.\n"
              "Unexpected option '-y' found on command line.\n");
    EXPECT_TRUE(params.cmd_only.empty());
}

TEST(Parameters, OptionsOfOneSourceAreUnknownInTheOther) {
    TestParams params;
    const auto flags = Parse(params, With({"--offset", "4"}));
    EXPECT_EQ(flags, static_cast<std::uint32_t>(Parameters::UnexpectedOption));
    EXPECT_EQ(params.offset, -3);
    EXPECT_EQ(params.MessageText(), "Unexpected option 'offset' found on command line.\n");
}

TEST(Parameters, SyntaxAndProcessingErrors) {
    {
        std::istringstream config("name\n");
        TestParams params;
        const auto flags = Parse(params, With({}), &config);
        EXPECT_EQ(flags, static_cast<std::uint32_t>(Parameters::SyntaxError));
        EXPECT_EQ(params.ErrorText(),
                  "Error parsing config file: 'the options configuration file contains an invalid line "
                  "'name''.\n");
    }
    {
        std::istringstream config("count = many\n");
        TestParams params;
        const auto flags = Parse(params, With({}), &config);
        EXPECT_EQ(flags, static_cast<std::uint32_t>(Parameters::ProcessError));
        EXPECT_EQ(params.ErrorText().rfind("Error processing config file: '", 0), 0u) << params.ErrorText();
        EXPECT_EQ(params.count, 7u);
    }
    {
        // A failed store marks nothing as seen, so the required options are reported missing too.
        TestParams params;
        const auto flags = Parse(params, With({"--count", "many"}));
        EXPECT_EQ(flags, static_cast<std::uint32_t>(Parameters::ProcessError | Parameters::ParseFailed));
        EXPECT_EQ(params.ErrorText(),
                  "Error processing command line: 'the argument ('many') for option '--count' is invalid'.\n"
                  "Missing required option 'needed'.\nMissing required option 'needed_anywhere'.\n");
    }
    {
        // --config last has no value: the scan ignores it and the library reports the syntax.
        TestParams params;
        const auto flags = Parse(params, {"--needed", "x", "--needed_anywhere", "y", "--config"});
        EXPECT_EQ(flags, static_cast<std::uint32_t>(Parameters::SyntaxError | Parameters::ParseFailed));
        EXPECT_EQ(params.ErrorText(),
                  "Error parsing command line: 'the required argument for option '--config' is missing'.\n"
                  "Missing required option 'needed'.\nMissing required option 'needed_anywhere'.\n");
    }
}

TEST(Parameters, ConfigFileFoundBySeparatedFormOnly) {
    TempDir dir;
    const auto file = dir.File("a.cfg", "name = from_file\n");
    {
        TestParams params;
        Parse(params, With({"--config", file}));
        EXPECT_EQ(params.name, "from_file");
        EXPECT_EQ(params.config_file, file);
    }
    {
        // The equals form is invisible to the scan: the file is not read, yet its name is kept.
        TestParams params;
        const auto flags = Parse(params, With({"--config=" + file}));
        EXPECT_EQ(flags, 0u) << params.ErrorText();
        EXPECT_EQ(params.name, "ctor");
        EXPECT_EQ(params.config_file, file);
    }
}

TEST(Parameters, BareConfigNameIsLookedUpInTheDataPath) {
    TempDir dir;
    dir.File("b.cfg", "count = 99\n");
    TestParams params;
    const auto flags = Parse(params, With({"-d", dir.path.string(), "-c", "b.cfg"}));
    EXPECT_EQ(flags, 0u) << params.ErrorText();
    EXPECT_EQ(params.count, 99u);
    EXPECT_EQ(params.data_path, dir.path.string());
    EXPECT_EQ(params.config_file, (dir.path / "b.cfg").string());
}

TEST(Parameters, MissingConfigFileIsReportedAndStillOpened) {
    TempDir dir;
    const auto missing = (dir.path / "none.cfg").string();
    TestParams params;
    const auto flags = Parse(params, With({"--config", missing}));
    EXPECT_EQ(flags, static_cast<std::uint32_t>(Parameters::ParseFailed | Parameters::ConfigReadError));
    EXPECT_EQ(params.ErrorText(), "Config file: " + missing + " does not exist!\n" +
                                      "Error reading config file: 'can not read options configuration file '" +
                                      missing + "''.\n");
}

TEST(Parameters, DataPathScanAndDefaults) {
    {
        // -d twice: the scan takes the first, the library rejects the repetition.
        TestParams params;
        const auto flags = Parse(params, With({"-d", "/first", "-d", "/second"}));
        EXPECT_EQ(flags, static_cast<std::uint32_t>(Parameters::ProcessError | Parameters::ParseFailed));
        EXPECT_EQ(params.data_path, "/first");
        EXPECT_EQ(params.ErrorText().rfind(
                      "Error processing command line: 'option '--data_path' cannot be specified more than once'.\n", 0),
                  0u)
            << params.ErrorText();
    }
    {
        // The equals form is not seen ahead of the parse, but the member holds it afterwards.
        TestParams params;
        Parse(params, With({"--data_path=/elsewhere"}));
        EXPECT_EQ(params.data_path, "/elsewhere");
    }
    {
        TestParams params;
        Parse(params, With({}));
        EXPECT_EQ(params.data_path, (Common::ExecutableDirectory().parent_path() / "data").string());
    }
    {
        TestParams params;
        params.ParseArguments(nullptr, "", 0, nullptr, "sub");
        EXPECT_EQ(params.data_path, (Common::ExecutableDirectory().parent_path() / "data" / "sub").string());
    }
}

TEST(Parameters, DefaultConfigIsUsedWhenNoneIsNamed) {
    TempDir dir;
    dir.File("default.cfg", "scale = 4.25\n");
    TestParams params;
    params.SetDefaultConfig("default.cfg");
    const auto flags = Parse(params, With({"-d", dir.path.string()}));
    EXPECT_EQ(flags, 0u) << params.ErrorText();
    EXPECT_FLOAT_EQ(params.scale, 4.25f);
    EXPECT_EQ(params.config_file, (dir.path / "default.cfg").string());
}

TEST(Parameters, HelpVersionAndEmptyCommandLine) {
    {
        std::istringstream config("name = x\n");
        TestParams params;
        params.SetHelpHeader("Usage: prog\n");
        const auto flags = Parse(params, {}, &config);
        EXPECT_TRUE(flags & Parameters::HelpRequested);
        EXPECT_TRUE(flags & Parameters::ParseFailed);
        EXPECT_EQ(params.MessageText().rfind("Usage: prog\nCommand line parameters:\n", 0), 0u);
        EXPECT_NE(params.MessageText().find("--needed arg"), std::string::npos);
        // Configuration-only options are not part of the command-line help.
        EXPECT_EQ(params.MessageText().find("--offset"), std::string::npos);
        EXPECT_EQ(params.name, "x");
    }
    {
        TestParams params;
        const auto flags = Parse(params, With({"--version"}));
        EXPECT_EQ(flags, static_cast<std::uint32_t>(Parameters::VersionRequested));
        EXPECT_EQ(params.MessageText(), "Version requested.\n");
    }
    {
        // No argv at all: nothing is parsed, required options are missing, no help.
        TestParams params;
        const auto flags = params.ParseArguments(nullptr, "", 0, nullptr, "");
        EXPECT_EQ(flags, static_cast<std::uint32_t>(Parameters::ParseFailed));
    }
}

TEST(Parameters, ValidateParamsFailureOnlySetsTheFlag) {
    TestParams params;
    params.valid = false;
    EXPECT_EQ(params.GetFlags(), static_cast<std::uint32_t>(Parameters::NotParsed));
    const auto flags = Parse(params, With({}));
    EXPECT_EQ(flags, static_cast<std::uint32_t>(Parameters::ParseFailed));
    EXPECT_TRUE(params.ErrorText().empty());
}

TEST(Parameters, FlagDeclarationRules) {
    TestParams params;
    std::string text;
    bool value = false;
    try {
        params.Declare("bad_flag", text, Parameters::Flag);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Flag options must have a storage type of bool.");
    }
    try {
        params.Declare("bad_flag2", value, Parameters::Flag | Parameters::Config);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Flag options cannot also be configuration options.");
    }
}

TEST(Parameters, ReadConfigFileThenCommandLineOnTop) {
    TempDir dir;
    const auto file = dir.File("w.cfg", "name = file_name\ncount = 5\nunknown_key = 1\n");
    TestParams params;
    Parse(params, With({"--count", "8"}));
    const std::vector<const char*> argv = {"prog", "--count", "8"};
    params.ReadConfigFile(file, 3, argv.data());
    EXPECT_EQ(params.name, "file_name");
    EXPECT_EQ(params.count, 8u);
    EXPECT_EQ(params.config_file, file);
    // A file that cannot be opened reads as empty.
    params.ReadConfigFile((dir.path / "missing.cfg").string(), 0, nullptr);
    EXPECT_EQ(params.name, "file_name");
}

TEST(Parameters, SaveConfigWritesPrintedValues) {
    TempDir dir;
    TestParams params;
    Parse(params, With({"-w"}));
    const auto path = (dir.path / "saved.cfg").string();
    params.SaveConfig(path, {"first", "second"}, false);
    std::ifstream in(path);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text,
              "# first\n# second\n\n"
              "name\t\t=\tctor\ncount\t\t=\t7\nscale\t\t=\t1.500000\noffset\t\t=\t-3\nenabled\t\t=\t1\n"
              "needed_anywhere\t\t=\ty\n");

    params.SaveConfig(path, {}, true);
    std::ifstream in_all(path);
    const std::string all((std::istreambuf_iterator<char>(in_all)), std::istreambuf_iterator<char>());
    EXPECT_EQ(all.rfind("name\t\t=\tctor\n", 0), 0u);
    EXPECT_NE(all.find("switch\t\t=\t1\n"), std::string::npos);
    EXPECT_NE(all.find("needed\t\t=\tx\n"), std::string::npos);

    // A saved configuration reads back into a fresh set.
    params.SaveConfig(path, {"round trip"}, false);
    std::ifstream saved(path);
    TestParams again;
    const auto flags = Parse(again, With({}), &saved);
    EXPECT_EQ(flags, 0u) << again.ErrorText() << again.MessageText();
    EXPECT_EQ(again.offset, -3);
    EXPECT_FLOAT_EQ(again.scale, 1.5f);
}
