#include "ctl/Record.h"

#include "ctl/Trouble.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>
#include <tuple>

namespace tarvik::ctl {

// The form of the records. What an older program has not written keeps its default.

constexpr int kFormat = 1;

constexpr const char* kStates[] = {"deploying", "installed", "removing"};

using Json = nlohmann::ordered_json;

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
            {"files", release.filesId}};
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
    json.at("files").get_to(release.filesId);
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

/// Reads files as they come. There are many, each [path, mode, digest], a directory without the
/// last.
class FileReader : public nlohmann::json_sax<Json> {
public:
    std::vector<RecordedFile> take() { return std::move(files_); }
    const std::string& complaint() const { return complaint_; }

    bool string(string_t& text) override
    {
        if (place_ == 0 && !files_.empty())
            files_.back().path = std::move(text);
        else if (place_ == 2)
            files_.back().sha256 = std::move(text);
        else
            return refuse();
        ++place_;
        return true;
    }
    bool number_unsigned(number_unsigned_t number) override
    {
        if (place_ != 1)
            return refuse();
        files_.back().mode = static_cast<mode_t>(number);
        ++place_;
        return true;
    }
    bool start_array(std::size_t /*elements*/) override
    {
        if (++depth_ == 2)
            files_.emplace_back();
        place_ = 0;
        return depth_ <= 2 || refuse();
    }
    bool end_array() override
    {
        if (depth_ == 2) {
            if (place_ < 2)
                return refuse();
            files_.back().directory = place_ == 2;
        }
        place_ = kNowhere;
        --depth_;
        return true;
    }
    bool null() override { return refuse(); }
    bool boolean(bool /*value*/) override { return refuse(); }
    bool number_integer(number_integer_t /*value*/) override { return refuse(); }
    bool number_float(number_float_t /*value*/, const string_t& /*text*/) override
    {
        return refuse();
    }
    bool binary(binary_t& /*value*/) override { return refuse(); }
    bool start_object(std::size_t /*elements*/) override { return refuse(); }
    bool key(string_t& /*text*/) override { return refuse(); }
    bool end_object() override { return refuse(); }
    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const Json::exception& e) override
    {
        complaint_ = e.what();
        return false;
    }

private:
    static constexpr int kNowhere = 9;

    bool refuse()
    {
        complaint_ = "they are not in the form they should have";
        return false;
    }

    std::vector<RecordedFile> files_;
    int depth_ = 0;
    int place_ = kNowhere;  ///< in the array of one file
    std::string complaint_;
};

/// Calls what uses the JSON library, whose errors name its own inner workings.
template <class Use>
auto with_json(const char* what, Use use)
try {
    return use();
} catch (const Json::exception& e) {
    throw Trouble(std::string(what) + ": " + e.what());
}

}  // namespace

bool DeployOptions::operator==(const DeployOptions& other) const
{
    const auto all = [](const DeployOptions& options) {
        return std::tie(options.metadataFile, options.skipWebserverWrite, options.script,
                        options.scriptParameters, options.apacheConf);
    };
    return all(*this) == all(other);
}

const char* state_name(State state)
{
    return kStates[static_cast<int>(state)];
}

std::string record_text(const InstanceRecord& record)
{
    return with_json("a record cannot be written", [&record] {
        Json json = {{"format", kFormat},     {"instance", record.name},
                     {"site", record.site},   {"state", state_name(record.state)},
                     {"list", record.listId}, {"current", record.current},
                     {"kept", record.kept}};
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
        json.at("list").get_to(record.listId);
        json.at("current").get_to(record.current);
        json.at("kept").get_to(record.kept);
        if (const auto exchange = json.find("exchange"); exchange != json.end())
            record.exchange = exchange->get<Exchange>();
        return record;
    });
}

std::string files_text(const std::vector<RecordedFile>& files)
{
    return with_json("files cannot be told", [&files] {
        std::string text = "[\n";
        for (const RecordedFile& file : files) {
            text += (text.size() == 2 ? "[" : ",\n[") + Json(file.path).dump() + ","
                + std::to_string(file.mode) + (file.directory ? "]" : ",\"" + file.sha256 + "\"]");
        }
        return text + "\n]\n";
    });
}

std::vector<RecordedFile> files_from(const std::string& text)
{
    return with_json("files cannot be read", [&text] {
        FileReader reader;
        if (!Json::sax_parse(text, &reader))
            throw Trouble("files cannot be read: " + reader.complaint());
        return reader.take();
    });
}

}  // namespace tarvik::ctl
