#include "platform/base/config.h"

#include <sys/stat.h>

#include <algorithm>

#include "platform/base/format.h"
// The parser behind read_xml, used once more for what the tree drops: line numbers.
#include <boost/property_tree/detail/rapidxml.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <cctype>
#include <cerrno>
#include <fstream>
#include <sstream>

#include "platform/base/exceptions.h"
#include "platform/base/logging.h"

namespace Pelinor::Service {

namespace pt = boost::property_tree;

struct Config::Tree {
    pt::ptree root;  // the children of <config>
    std::string origin;
    std::vector<Config::Entry> entries;
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

namespace rx = pt::detail::rapidxml;

// Leaf elements below `node` with their lines; `text` is the buffer the parser ran over.
void CollectEntries(const rx::xml_node<char>* node, const std::string& prefix, const char* text,
                    const pt::ptree& root, std::vector<Config::Entry>& out) {
    for (auto* child = node->first_node(); child != nullptr; child = child->next_sibling()) {
        if (child->type() != rx::node_element) continue;
        std::string key = prefix + std::string(child->name(), child->name_size());
        bool leaf = true;
        for (auto* grand = child->first_node(); grand != nullptr; grand = grand->next_sibling())
            leaf = leaf && grand->type() != rx::node_element;
        if (!leaf) {
            CollectEntries(child, key + "/", text, root, out);
            continue;
        }
        int line =
            1 + static_cast<int>(std::count(text, static_cast<const char*>(child->name()), '\n'));
        auto value = root.get_optional<std::string>(pt::ptree::path_type(key, '/'));
        out.push_back({key, value ? *value : std::string(), line});
    }
}

std::vector<Config::Entry> IndexLines(std::string text, const pt::ptree& root) {
    std::vector<Config::Entry> entries;
    text.push_back('\0');
    rx::xml_document<char> document;
    document.parse<rx::parse_non_destructive>(text.data());
    if (auto* top = document.first_node(kRootElement.data(), kRootElement.size()))
        CollectEntries(top, "", text.data(), root, entries);
    return entries;
}

}  // namespace

bool Config::ParseInt(std::string_view text, int32_t& out) {
    text = Trim(text);
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    if (text.empty() || text.front() == '+') return false;
    return ParseWhole(text, out);
}

bool Config::ParseBool(std::string_view text, bool& out) {
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

namespace {

Ref<Config> FromStream(std::istream& in, const std::string& origin) {
    std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    std::istringstream parsed(text);
    pt::ptree document;
    try {
        pt::read_xml(parsed, document,
                     pt::xml_parser::no_comments | pt::xml_parser::trim_whitespace);
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
    tree->origin = origin;
    try {
        tree->entries = IndexLines(std::move(text), tree->root);
    } catch (const rx::parse_error&) {
        // read_xml took it, so only the line index is lost.
    }
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
            auto empty = std::make_unique<Tree>();
            empty->origin = path;
            return MakeRef<Config>(std::move(empty));
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

namespace {

// The key's text converted by `parse`; text that does not convert is reported, `out` untouched.
template <typename T>
bool GetParsed(const Config& config, const std::string& key, T& out,
               bool (*parse)(std::string_view, T&)) {
    std::string text;
    if (!config.GetString(key, text)) return false;
    if (parse(text, out)) return true;
    config.ReportInvalid(key, text);
    return false;
}

}  // namespace

bool Config::GetInt(const std::string& key, int32_t& out) const {
    return GetParsed(*this, key, out, &ParseInt);
}

bool Config::GetBool(const std::string& key, bool& out) const {
    return GetParsed(*this, key, out, &ParseBool);
}

const std::vector<Config::Entry>& Config::Entries() const {
    return tree->entries;
}

const std::string& Config::Origin() const {
    return tree->origin;
}

std::string Config::Where(const Entry& entry) const {
    return tree->origin + ":" + std::to_string(entry.line);
}

void Config::ReportInvalid(const std::string& key, const std::string& text) const {
    auto entry = std::find_if(tree->entries.begin(), tree->entries.end(),
                              [&](const Entry& e) { return e.key == key; });
    Log(Logger::sDefaultLogger, LogLevel::Warning,
        "Configuration key %1 has an invalid value: '%2' (%3)", key, text,
        entry == tree->entries.end() ? tree->origin : Where(*entry));
}

}  // namespace Pelinor::Service
