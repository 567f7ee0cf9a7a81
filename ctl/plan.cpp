#include "ctl/Child.h"
#include "ctl/CommandLine.h"
#include "ctl/InstanceStore.h"
#include "ctl/Output.h"
#include "ctl/Preview.h"
#include "ctl/commands.h"

#include <boost/filesystem/exception.hpp>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <iostream>
#include <iterator>

namespace tarvik::ctl {

namespace {

using Json = nlohmann::ordered_json;

constexpr char kSummary[] =
    "Shows what extracting PACKAGE into the site would do, and touches nothing:\n\n"
    "  create file|dir MODE PATH\n"
    "  replace KIND MODE PATH          by a file; KIND is what stands there: a file that is "
    "\"equal\"\n"
    "                                  or \"different\", or \"foreign\", equal but another "
    "user's;\n"
    "                                  a \"link\", an empty \"dir\", something \"other\"\n"
    "  keep dir PATH                   as it is\n"
    "  mode OLD -> NEW PATH            of what is there and stays\n"
    "  program PATH                    can be executed then, and cannot now\n"
    "  writable PATH                   can be written by the web server then, and cannot now\n"
    "  warn PATH: REASON               something that is wanted stays undone\n"
    "  fail PATH: REASON               it would end, at the first of these\n"
    "  undo would remove PATH          is there now; shown when something fails, else counted\n"
    "  undo would end at PATH: REASON  with part of that left\n\n"
    "A path is relative to the application's directory. Status: 0 nothing would change, 2 "
    "something\n"
    "would, or would fail.\n\n"
    "--json prints one document instead: \"package\", \"directory\"; the arrays \"steps\" "
    "(\"action\"\n"
    "and, as they apply, \"replaced\", \"type\", \"before\", \"mode\", \"path\"), \"programs\",\n"
    "\"writable\", \"warnings\", \"failures\" (\"path\", \"reason\"), \"undo\", \"undo-ends\"; "
    "then\n"
    "\"undone\": whether the first failure leads to the undo, and \"changes\".";

struct FateWords {
    const char* action;
    const char* kind;  ///< what is replaced
    Tone tone;
};

constexpr FateWords kFates[] = {
    {"create", "", Tone::Good},
    {"replace", "equal", Tone::Plain},
    {"replace", "different", Tone::Notice},
    {"replace", "foreign", Tone::Notice},
    {"replace", "link", Tone::Notice},
    {"replace", "dir", Tone::Notice},
    {"replace", "other", Tone::Notice},
    {"keep", "", Tone::Plain},
};

const FateWords& words_of(const Step& step)
{
    return kFates[static_cast<std::size_t>(step.fate)];
}

std::string octal(mode_t mode)
{
    constexpr unsigned kBitsOfADigit = 3;
    std::string text = "0000";
    for (auto digit = text.rbegin(); digit != text.rend(); ++digit, mode >>= kBitsOfADigit)
        *digit = static_cast<char>('0' + (mode & 7U));
    return text;
}

const char* type_of(const Step& step)
{
    return step.directory ? "dir" : "file";
}

// --- For people
// -----------------------------------------------------------------------------------

void show_step(Rows& rows, const Step& step)
{
    const FateWords& words = words_of(step);
    const bool alters = step.fate != Fate::Create && step.before != step.mode;
    const std::string mode = (alters ? octal(step.before) + " -> " : "") + octal(step.mode);
    if (step.fate == Fate::Create)
        rows.add({words.action, type_of(step), mode, step.path}, words.tone);
    else if (step.fate != Fate::Keep)
        rows.add({words.action, words.kind, mode, step.path}, alters ? Tone::Notice : words.tone);
    else if (alters)
        rows.add({"mode", mode, step.path}, Tone::Notice);
    else
        rows.add({words.action, type_of(step), step.path}, words.tone);
}

void show_findings(Rows& rows, const char* what, const std::vector<Foreseen>& findings, Tone tone)
{
    for (const Foreseen& finding : findings)
        rows.add({what, finding.path + ": " + finding.reason}, tone);
}

void show_gains(Rows& rows, const char* what, const Preview& preview, bool Step::*gain)
{
    for (const Step& step : preview.steps) {
        if (step.*gain)
            rows.add({what, step.path}, Tone::Notice);
    }
}

void show_undo(Rows& rows, const Preview& preview)
{
    if (!preview.undoes)
        return;
    for (const std::string& path : preview.atStake)
        rows.add({"undo would remove", path}, Tone::Bad);
    show_findings(rows, "undo would end at", preview.removalEnds, Tone::Bad);
}

void show_summary(const Preview& preview)
{
    std::array<std::size_t, std::size(kFates)> counts = {};
    std::size_t modes = 0;
    for (const Step& step : preview.steps) {
        ++counts[static_cast<std::size_t>(step.fate)];
        modes += step.fate == Fate::Keep && step.before != step.mode ? 1 : 0;
    }
    const auto count = [&](Fate fate) { return counts[static_cast<std::size_t>(fate)]; };
    const std::size_t replaced = preview.steps.size() - count(Fate::Create) - count(Fate::Keep);
    std::cout << count(Fate::Create) << " to create, " << replaced << " to replace ("
              << count(Fate::ReplaceEqual) << " equal), " << count(Fate::Keep) - modes
              << " to keep, " << modes << " modes to change, " << preview.failures.size()
              << " failures; an undo would remove " << preview.atStake.size()
              << " existing entries\n";
}

void show(const Preview& preview)
{
    {
        Rows rows;
        for (const Step& step : preview.steps)
            show_step(rows, step);
        show_gains(rows, "program", preview, &Step::becomesProgram);
        show_gains(rows, "writable", preview, &Step::becomesWritable);
        show_findings(rows, "warn", preview.warnings, Tone::Notice);
        show_findings(rows, "fail", preview.failures, Tone::Bad);
        show_undo(rows, preview);
    }
    show_summary(preview);
}

// --- For programs
// ---------------------------------------------------------------------------------

/// Names need not be UTF-8, which JSON has to be.
std::string dumped(const Json& json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json step_json(const Step& step)
{
    const FateWords& words = words_of(step);
    const bool changesMode = step.fate == Fate::Keep && step.before != step.mode;
    Json json = {{"action", changesMode ? "mode" : words.action}};
    if (*words.kind != '\0')
        json["replaced"] = words.kind;
    json["type"] = type_of(step);
    if (step.fate != Fate::Create)
        json["before"] = octal(step.before);
    json["mode"] = octal(step.mode);
    json["path"] = step.path;
    return json;
}

Json finding_json(const Foreseen& finding)
{
    return {{"path", finding.path}, {"reason", finding.reason}};
}

/// An array of a member, written element by element: all of it as one value would take much memory.
template <class Elements, class Convert>
void print_array(const char* name, const Elements& elements, const Convert& convert)
{
    std::cout << ",\n\"" << name << "\": [";
    const char* before = "\n";
    for (const auto& element : elements) {
        const Json json = convert(element);
        if (json.is_null())
            continue;
        std::cout << before << dumped(json);
        before = ",\n";
    }
    std::cout << "]";
}

void print_json(const Preview& preview, const PackageSource& package, const Site& site)
{
    const auto path_with = [](bool Step::*gain) {
        return [gain](const Step& step) { return step.*gain ? Json(step.path) : Json(); };
    };
    std::cout << "{\"package\": " << dumped(package.directory)
              << ",\n\"directory\": " << dumped(site.application_dir());
    print_array("steps", preview.steps, step_json);
    print_array("programs", preview.steps, path_with(&Step::becomesProgram));
    print_array("writable", preview.steps, path_with(&Step::becomesWritable));
    print_array("warnings", preview.warnings, finding_json);
    print_array("failures", preview.failures, finding_json);
    print_array("undo", preview.atStake, [](const std::string& path) { return Json(path); });
    print_array("undo-ends", preview.removalEnds, finding_json);
    std::cout << ",\n\"undone\": " << dumped(preview.undoes)
              << ",\n\"changes\": " << dumped(preview.changes()) << "}\n";
}

}  // namespace

int plan(int argc, char** argv)
{
    CommandLine line("plan PACKAGE SITE [OPTION...]", kSummary);
    PackageSource package;
    SiteOptions options;
    bool skipWebserverWrite = false;
    bool json = false;
    line.package(package);
    line.site(options);
    line.add()("skip-webserver-write", flag(skipWebserverWrite),
               "as without the modes for the web server");
    line.add()("json", flag(json), "print a JSON document");
    if (!line.parse(argc, argv))
        return kDone;

    package = settled(package);
    const Site site = site_of(options);
    const FSAMetaDataReader metadata = read_metadata(package);
    const auto report = [&](Preview& preview) {
        if (json || preview.undoes)
            std::sort(preview.atStake.begin(), preview.atStake.end());
        if (json)
            print_json(preview, package, site);
        else
            show(preview);
        return preview.changes() ? kDifferent : kDone;
    };
    Preview preview;
    preview.failures = host_failures(site);
    if (!preview.failures.empty())
        return report(preview);
    return run_as(site.userName, [&]() -> int {
        InstallPlan planned;
        try {
            planned = plan_install(package.directory, site.application_dir(), metadata);
            preview = preview_extraction(planned, package.directory, site.application_dir(),
                                         skipWebserverWrite);
        } catch (const boost::filesystem::filesystem_error& e) {  // with nothing touched
            preview.failures.push_back({e.path1().native(), e.code().message()});
        }
        end_child(report(preview));
    });
}

}  // namespace tarvik::ctl
