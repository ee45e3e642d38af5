#include "tools/sample/Options.h"

#include <CLI/CLI.hpp>

#include <map>
#include <string>

namespace sample {

namespace {

constexpr int kUsageStatus = 2;

constexpr char kFooter[] =
    "FOLDER/mmc, FOLDER/data and FOLDER/config are laid out as a unit's \"/mmc\", \"/root/data\"\n"
    "and \"/root/config\". The last day recorded is on internal storage (data) alone, the one\n"
    "before it on both, the others on the card (mmc) alone; a single day is on both. Every third\n"
    "source of a category is an older device, whose recordings describe no record types. Links\n"
    "beside the job's folder stand where a replay looks for days.\n"
    "The same options give the same bytes, everywhere.";

struct Profile {
    const char* help;
    Options options;
};

Profile small() {
    return {"a few MB: a week of a few sources", {}};
}

Profile site() {
    Options options;
    options.days = 31;
    options.gauges = 12;
    options.gaugeCards = 4;
    options.inputs = 4;
    options.wireless = 6;
    options.ostrevin = 2;
    options.gaps = 1;
    return {"some 65 MB: a month of a site", options};
}

Profile huge() {
    Options options;
    options.rateSeconds = 1;
    options.gauges = 32;
    options.gaugeCards = 8;
    options.inputs = 8;
    options.wireless = 16;
    options.ostrevin = 8;
    return {"some 360 MB: a week of many sources at 1 Hz", options};
}

struct Number {
    const char* name;
    int Options::*value;
    int least;
    int most;
    const char* help;
};

const Number kNumbers[] = {
    {"--days", &Options::days, 1, 3660, "Days recorded"},
    {"--rate", &Options::rateSeconds, 1, 3600,
     "Seconds between the samples of gauges and gauge cards; inputs, ostrevin devices and the "
     "system take 6 times as long, wireless ones 30 times"},
    {"--gauges", &Options::gauges, 0, 1000, "How many gauges"},
    {"--gaugecards", &Options::gaugeCards, 0, 1000, "How many gauge cards"},
    {"--inputs", &Options::inputs, 0, 1000, "How many input cards"},
    {"--wireless", &Options::wireless, 0, 1000, "How many wireless devices"},
    {"--ostrevin", &Options::ostrevin, 0, 1000, "How many ostrevin devices"},
    {"--gaps", &Options::gaps, 0, 12, "Stretches of up to an hour without samples, in each file"},
    {"--clock-jumps", &Options::clockJumps, 0, 12,
     "How often a day the unit's clock goes wrong for up to an hour: by turns an hour ahead, 10 "
     "minutes behind, 90 seconds behind, and back in the year 2000"},
    {"--damaged", &Options::damaged, 0, 1'000'000,
     "How many recordings are damaged: by turns cut off inside, cut off inside the header, with a "
     "header size that lies, and with a stretch of random bytes"},
    {"--empty", &Options::empty, 0, 1'000'000,
     "How many recordings are empty: by turns of 0 bytes, and a header without records"},
};

/// What CLI11 fills in; it knows no Qt types, and a profile must not undo what stands before it.
struct Parsed {
    std::string folder;
    std::string profile = "small";
    quint64 seed = 1;
    std::string job = "northfield";
    std::string from = "2024-05-01";
    std::map<const Number*, int> numbers;
};

QDate dateOf(const std::string& text) {
    return QDate::fromString(QString::fromStdString(text), QStringLiteral("yyyy-MM-dd"));
}

/// Years that the recordings' 32-bit times hold, with room for the days after.
std::string checkDate(const std::string& text) {
    const QDate date = dateOf(text);
    const bool isUsable = date.isValid() && date.year() >= 1971 && date.year() <= 2090;
    return isUsable ? std::string() : text + " is no date (yyyy-MM-dd) from 1971 to 2090";
}

std::string checkJob(const std::string& name) {
    const bool isUsable = !name.empty() && name != "." && name != ".." && name.size() <= 200 &&
                          name.find_first_of("/<>&\"") == std::string::npos;
    return isUsable ? std::string() : "\"" + name + "\" is no name of a folder";
}

std::string profilesHelp(const std::map<std::string, Profile>& profiles) {
    std::string help = "What the options begin with:";
    for (const auto& [name, profile] : profiles) {
        help += "\n" + name + ": " + profile.help;
    }
    return help;
}

void addOptions(CLI::App& app, Parsed& parsed, const std::map<std::string, Profile>& profiles) {
    app.set_help_flag("--help", "Print this help and end");
    app.footer(kFooter);
    app.add_option("FOLDER", parsed.folder, "Where; made where it is missing")->required();
    app.option_defaults()->take_last();
    app.add_option("--profile", parsed.profile, profilesHelp(profiles))
        ->check(CLI::IsMember(&profiles))
        ->capture_default_str();
    app.add_option("--seed", parsed.seed, "Another number gives other recordings")
        ->capture_default_str();
    app.add_option("--job", parsed.job, "Name of the job")->check(checkJob)->capture_default_str();
    app.add_option("--from", parsed.from, "First day, UTC")
        ->type_name("DATE")
        ->check(checkDate)
        ->capture_default_str();
    for (const Number& number : kNumbers) {
        app.add_option(number.name, parsed.numbers[&number], number.help)
            ->type_name("N")
            ->check(CLI::Range(number.least, number.most));
    }
}

}  // namespace

std::optional<int> parseCommandLine(int argc, const char* const* argv, Options& options) {
    const std::map<std::string, Profile> profiles = {
        {"small", small()}, {"site", site()}, {"huge", huge()}};
    CLI::App app("Writes a sample unit: realistic recordings to look at, test and measure with.");
    Parsed parsed;
    addOptions(app, parsed, profiles);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& fault) {
        return app.exit(fault) == 0 ? 0 : kUsageStatus;
    }
    options = profiles.at(parsed.profile).options;
    options.folder = QString::fromStdString(parsed.folder);
    options.seed = parsed.seed;
    options.job = QByteArray::fromStdString(parsed.job);
    options.from = dateOf(parsed.from);
    for (const Number& number : kNumbers) {
        if (app.count(number.name) > 0) {
            options.*number.value = parsed.numbers[&number];
        }
    }
    return std::nullopt;
}

}  // namespace sample
