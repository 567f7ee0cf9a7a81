#include "ctl/Record.h"

#include "ctl/Trouble.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>

namespace tarvik::ctl {

// The form of the records. What an older program has not written keeps its default.

constexpr int kFormat = 1;

constexpr const char* kStates[] = {"deploying", "installed", "removing"};

using Json = nlohmann::ordered_json;

static void to_json(Json& json, const RecordedFile& file)
{
    json = {{"path", file.path}, {"mode", file.mode}};
    json[file.directory ? "directory" : "sha256"] = file.directory ? Json(true) : Json(file.sha256);
}

static void from_json(const Json& json, RecordedFile& file)
{
    json.at("path").get_to(file.path);
    json.at("mode").get_to(file.mode);
    file.directory = json.value("directory", false);
    file.sha256 = json.value("sha256", "");
}

static void to_json(Json& json, const DeployOptions& options)
{
    json = {{"metadata-file", options.metadataFile},
            {"skip-webserver-write", options.skipWebserverWrite},
            {"script", options.script},
            {"script-parameters", options.scriptParameters},
            {"apache-conf", options.apacheConf}};
}

static void from_json(const Json& json, DeployOptions& options)
{
    json.at("metadata-file").get_to(options.metadataFile);
    json.at("skip-webserver-write").get_to(options.skipWebserverWrite);
    json.at("script").get_to(options.script);
    json.at("script-parameters").get_to(options.scriptParameters);
    json.at("apache-conf").get_to(options.apacheConf);
}

static void to_json(Json& json, const Release& release)
{
    json = {{"name", release.name},
            {"version", release.version},
            {"release", release.release},
            {"package", release.packageDir},
            {"installed", release.installed},
            {"options", release.options},
            {"writable", release.writableDirs},
            {"other", release.otherDirs},
            {"files", release.files}};
}

static void from_json(const Json& json, Release& release)
{
    json.at("name").get_to(release.name);
    json.at("version").get_to(release.version);
    json.at("release").get_to(release.release);
    json.at("package").get_to(release.packageDir);
    json.at("installed").get_to(release.installed);
    json.at("options").get_to(release.options);
    json.at("writable").get_to(release.writableDirs);
    json.at("other").get_to(release.otherDirs);
    json.at("files").get_to(release.files);
}

static void to_json(Json& json, const KeptRelease& kept)
{
    json = {{"directory", kept.directory}, {"mode", kept.mode}, {"release", kept.release}};
}

static void from_json(const Json& json, KeptRelease& kept)
{
    json.at("directory").get_to(kept.directory);
    json.at("mode").get_to(kept.mode);
    json.at("release").get_to(kept.release);
}

static void to_json(Json& json, const Exchange& exchange)
{
    json = {{"command", exchange.command},
            {"directory", exchange.directory},
            {"outgoing-mode", exchange.outgoingMode},
            {"release", exchange.release}};
    if (exchange.incoming)
        json["incoming"] = {exchange.incoming->device, exchange.incoming->inode};
}

static void from_json(const Json& json, Exchange& exchange)
{
    json.at("command").get_to(exchange.command);
    json.at("directory").get_to(exchange.directory);
    json.at("outgoing-mode").get_to(exchange.outgoingMode);
    json.at("release").get_to(exchange.release);
    if (const auto incoming = json.find("incoming"); incoming != json.end())
        exchange.incoming = Identity {incoming->at(0).get<dev_t>(), incoming->at(1).get<ino_t>()};
}

static void to_json(Json& json, const Site& site)
{
    json = {{"vhost-path", site.vhostPath},
            {"www-root", site.wwwRoot},
            {"user-name", site.userName},
            {"application-subdirectory", site.subdirectory}};
}

static void from_json(const Json& json, Site& site)
{
    json.at("vhost-path").get_to(site.vhostPath);
    json.at("www-root").get_to(site.wwwRoot);
    json.at("user-name").get_to(site.userName);
    json.at("application-subdirectory").get_to(site.subdirectory);
}

namespace {

State state_from(const std::string& name)
{
    const auto* const found = std::find(std::begin(kStates), std::end(kStates), name);
    if (found == std::end(kStates))
        throw Trouble("an unknown state in a record: " + name);
    return static_cast<State>(found - std::begin(kStates));
}

/// Calls what uses the JSON library, whose errors name its own inner workings.
template <class Use>
auto with_json(const char* what, Use use)
try {
    return use();
} catch (const Json::exception& e) {
    throw Trouble(std::string(what) + ": " + e.what());
}

}  // namespace

const char* state_name(State state)
{
    return kStates[static_cast<int>(state)];
}

std::string record_text(const InstanceRecord& record)
{
    return with_json("a record cannot be written", [&record] {
        Json json = {{"format", kFormat},         {"instance", record.name},
                     {"site", record.site},       {"state", state_name(record.state)},
                     {"current", record.current}, {"kept", record.kept}};
        if (record.exchange)
            json["exchange"] = *record.exchange;
        return json.dump(1) + '\n';
    });
}

InstanceRecord record_from(const std::string& text)
{
    return with_json("a record cannot be read", [&text] {
        const Json json = Json::parse(text);
        if (json.at("format").get<int>() > kFormat)
            throw Trouble("a record was written by a newer zendrelctl");
        InstanceRecord record;
        json.at("instance").get_to(record.name);
        json.at("site").get_to(record.site);
        record.state = state_from(json.at("state").get<std::string>());
        json.at("current").get_to(record.current);
        json.at("kept").get_to(record.kept);
        if (const auto exchange = json.find("exchange"); exchange != json.end())
            record.exchange = exchange->get<Exchange>();
        return record;
    });
}

std::string release_text(const Release& release)
{
    return with_json("a release cannot be told", [&release] { return Json(release).dump(); });
}

Release release_from(const std::string& text)
{
    return with_json("a release was not told",
                     [&text] { return Json::parse(text).get<Release>(); });
}

}  // namespace tarvik::ctl
