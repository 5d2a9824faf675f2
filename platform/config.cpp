#include "platform/config.h"

#include <sys/stat.h>

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <sstream>

#include "platform/exceptions.h"
#include "platform/logging.h"

namespace Pelinor::Service {

namespace pt = boost::property_tree;

struct Config::Tree {
    pt::ptree root;  // the children of <config>
};

namespace {

constexpr std::string_view kRootElement = "config";

std::string_view Trim(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())))
        text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
        text.remove_suffix(1);
    return text;
}

bool ParseInt(std::string_view text, int32_t& out) {
    text = Trim(text);
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    if (text.empty() || text.front() == '+') return false;
    int32_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return false;
    out = value;
    return true;
}

bool ParseBool(std::string_view text, bool& out) {
    std::string lower(Trim(text));
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (lower == "true" || lower == "yes" || lower == "1") {
        out = true;
    } else if (lower == "false" || lower == "no" || lower == "0") {
        out = false;
    } else {
        return false;
    }
    return true;
}

void LogInvalid(const std::string& key, const std::string& text) {
    Log(Logger::sDefaultLogger, LogLevel::Warning,
        "Configuration key %1 has an invalid value: '%2'", key, text);
}

Ref<Config> FromStream(std::istream& in, const std::string& origin) {
    pt::ptree document;
    try {
        pt::read_xml(in, document, pt::xml_parser::no_comments | pt::xml_parser::trim_whitespace);
    } catch (const pt::xml_parser_error& e) {
        throw Exception("Malformed configuration " + origin + ": " + e.what());
    }
    auto root = document.get_child_optional(std::string(kRootElement));
    if (!root || document.size() != 1) {
        throw Exception("Malformed configuration " + origin +
                        ": the root element must be <config>");
    }
    auto tree = std::make_unique<Config::Tree>();
    tree->root = std::move(*root);
    tree->root.erase("<xmlattr>");
    return MakeRef<Config>(std::move(tree));
}

}  // namespace

Config::Config(std::unique_ptr<Tree> tree) : tree(std::move(tree)) {}
Config::~Config() = default;

Ref<Config> Config::Load(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        int error = errno;
        struct stat st {};
        if (error == ENOENT && ::lstat(path.c_str(), &st) != 0) {
            Log(Logger::sDefaultLogger, LogLevel::Warning,
                "Configuration file %1 not found; using defaults", path);
            return MakeRef<Config>(std::make_unique<Tree>());
        }
        throw SystemError("Cannot read configuration", path, error);
    }
    return FromStream(in, path);
}

Ref<Config> Config::Parse(const std::string& xml) {
    std::istringstream in(xml);
    return FromStream(in, "text");
}

bool Config::GetString(const std::string& key, std::string& out) const {
    auto value = tree->root.get_optional<std::string>(pt::ptree::path_type(key, '/'));
    if (!value) return false;
    out = *value;
    return true;
}

bool Config::GetInt(const std::string& key, int32_t& out) const {
    std::string text;
    if (!GetString(key, text)) return false;
    if (ParseInt(text, out)) return true;
    LogInvalid(key, text);
    return false;
}

bool Config::GetBool(const std::string& key, bool& out) const {
    std::string text;
    if (!GetString(key, text)) return false;
    if (ParseBool(text, out)) return true;
    LogInvalid(key, text);
    return false;
}

}  // namespace Pelinor::Service
