#include <gtest/gtest.h>

#include <sstream>

#include "command.h"

namespace netvane::cli {
namespace {

int noRun(const Arguments&) { return kExitOK; }

const Command kSample{
    "sample show",
    "netvane sample show FILE [--interval SECONDS] [--count N] [--now TIME]\n"
    "    [--keep FILE] [--to a|b] [-o OUT] [--json]",
    "a command for the parser's tests",
    {{"FILE", ValueKind::inputFile, "what to read"}},
    {Option::ranged("--interval", ValueKind::seconds, "SECONDS", "the time between readings", 0.05, 86400, 1),
     Option::ranged("--count", ValueKind::count, "N", "how many", 1, 1e9),
     Option::ranged("--now", ValueKind::time, "TIME", "the end", -978307200, 252423993599),
     Option::valued("--keep", ValueKind::file, "FILE", "read and written"),
     Option::choice("--to", "a|b", "which", "a|b"), Option::valued("-o", ValueKind::outputFile, "OUT", "where"),
     Option::flag("--json", "as JSON")},
    "What it does.",
    noRun,
};

Result<Arguments> parse(std::initializer_list<std::string_view> words) { return parseArguments(kSample, Args(words)); }

std::string problem(std::initializer_list<std::string_view> words) {
    auto parsed = parse(words);
    return parsed ? "(parsed)" : parsed.error().message;
}

TEST(Arguments, NumbersArePlainDecimalsWithinTheirRange) {
    EXPECT_EQ(parse({"f", "--interval", "2.5"})->seconds("--interval"), 2.5);
    EXPECT_EQ(parse({"f", "--interval", ".05"})->seconds("--interval"), 0.05);
    EXPECT_EQ(parse({"f", "--interval", "86400"})->seconds("--interval"), 86400);
    EXPECT_EQ(parse({"f"})->seconds("--interval"), 1) << "the table's default";
    EXPECT_EQ(parse({"f", "--count", "1000000000"})->count("--count"), 1000000000u);
    EXPECT_EQ(parse({"f"})->count("--count"), std::nullopt);
    for (const char* bad : {"1e300", "1e-1", "0x10", "+1", "-1", " 1", "1 ", "inf", "nan", "", ".", "1.2.3", "1,5",
                            "0.04", "86400.001", "0", "999999999999999999999999999999999999999999999999999999"}) {
        const std::string message = problem({"f", "--interval", bad});
        EXPECT_EQ(message, "--interval needs a number of seconds from 0.05 to 86400, such as 2.5; not '" +
                               std::string(bad) + "'")
            << bad;
    }
    for (const char* bad : {" -1", "-1", "0", "1000000001", "18446744073709551616", "99999999999999999999999", "1.0",
                            "1e3", "+3", ""}) {
        EXPECT_EQ(problem({"f", "--count", bad}),
                  "--count needs a whole number from 1 to 1000000000; not '" + std::string(bad) + "'")
            << bad;
    }
}

TEST(Arguments, TimesAreIsoUtcWithinTheirRange) {
    EXPECT_EQ(parse({"f", "--now", "9999-12-31T23:59:59Z"})->time("--now"), Date{252423993599});
    EXPECT_EQ(parse({"f", "--now", "1970-01-01T00:00:00Z"})->time("--now"), Date::fromUnix(0));
    for (const char* bad : {"1969-12-31T23:59:59Z", "2026-11-23T14:00:00", "2026-11-23 14:00:00Z", "tomorrow"}) {
        EXPECT_NE(problem({"f", "--now", bad}).find("from 1970-01-01T00:00:00Z to 9999-12-31T23:59:59Z"),
                  std::string::npos)
            << bad;
    }
}

// One convention for every command: options anywhere before "--", values
// after a space or "=", "-" an operand, each option once.
TEST(Arguments, DashesValuesAndRepeatsFollowOneConvention) {
    auto parsed = parse({"--json", "-", "--count=3", "-o", "-"});
    ASSERT_TRUE(parsed.ok()) << parsed.error().message;
    EXPECT_EQ(parsed->operands(), std::vector<std::string>{"-"});
    EXPECT_EQ(parsed->count("--count"), 3u);
    EXPECT_EQ(parsed->text("-o"), "-");
    EXPECT_TRUE(parsed->flag("--json"));

    auto ended = parse({"--", "--json"});
    ASSERT_TRUE(ended.ok());
    EXPECT_EQ(ended->operands(), std::vector<std::string>{"--json"});
    EXPECT_FALSE(ended->flag("--json"));
    // A value is the next word, whatever it looks like.
    EXPECT_NE(problem({"--interval", "--", "f"}).find("not '--'"), std::string::npos);
    EXPECT_EQ(parse({"f", "--to", "b"})->text("--to"), "b");
}

TEST(Arguments, UsageProblemsSayWhatIsWrong) {
    EXPECT_EQ(problem({}), "missing FILE");
    EXPECT_EQ(problem({""}), "FILE is empty");
    EXPECT_EQ(problem({"f", "g"}), "unexpected argument 'g'");
    EXPECT_EQ(problem({"f", "--bogus"}), "unknown option '--bogus'");
    EXPECT_EQ(problem({"f", "--bogus=1"}), "unknown option '--bogus'");
    EXPECT_EQ(problem({"f", "-o=x"}), "unknown option '-o=x'");
    EXPECT_EQ(problem({"f", "--json", "--json"}), "--json is given more than once");
    EXPECT_EQ(problem({"f", "--count", "2", "--count=3"}), "--count is given more than once");
    EXPECT_EQ(problem({"f", "--json=yes"}), "--json takes no value");
    EXPECT_EQ(problem({"f", "--count"}), "--count needs a whole number after it");
    EXPECT_EQ(problem({"f", "--keep", "-"}), "--keep needs a file; standard input and output cannot hold what it keeps");
    EXPECT_EQ(problem({"f", "--keep="}), "--keep needs a file, not an empty text");
    EXPECT_EQ(problem({"f", "--to", "c"}), "--to needs one of a b; not 'c'");
}

TEST(Arguments, HelpIsAskedForOnlyBeforeTheEndOfOptions) {
    EXPECT_TRUE(wantsHelp({"f", "-h"}));
    EXPECT_TRUE(wantsHelp({"--bogus", "--help"}));
    EXPECT_FALSE(wantsHelp({"--", "--help"}));
    EXPECT_FALSE(wantsHelp({"--helpful"}));
}

// The help comes from the table: every option with its range and default,
// every line within 79 columns, the usage lines as written.
TEST(Help, SaysEveryOptionWithItsRangeWithinEightyColumns) {
    const std::string help = helpText(kSample);
    EXPECT_EQ(help.rfind("netvane sample show: a command for the parser's tests\n\nusage:\n"
                         "  netvane sample show FILE [--interval SECONDS]",
                         0),
              0u)
        << help;
    EXPECT_NE(help.find("\n    [--keep FILE] [--to a|b] [-o OUT] [--json]\n"), std::string::npos) << help;
    EXPECT_NE(help.find("the time between readings (0.05 to 86400; default 1)"), std::string::npos) << help;
    EXPECT_NE(help.find("(1970-01-01T00:00:00Z to 9999-12-31T23:59:59Z)"), std::string::npos) << help;
    EXPECT_NE(help.find("what to read (- for standard input)"), std::string::npos) << help;
    for (const Option& option : kSample.options) EXPECT_NE(help.find("\n  " + std::string(option.name)), std::string::npos);
    std::istringstream lines(help);
    for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 79u) << line;
}

}  // namespace
}  // namespace netvane::cli
