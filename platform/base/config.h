// The configuration file: XML under <config>, read by slash-separated key paths.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/object.h"

namespace Pelinor::Service {

class Config : public ObjectImpl {
  public:
    // A missing file is an empty configuration; an unreadable or malformed one throws.
    static Ref<Config> Load(const std::string& path);
    static Ref<Config> Parse(const std::string& xml);  // throws on malformed text

    // Each read returns whether the key holds a usable value and leaves `out`
    // alone otherwise; a value that does not convert is logged and counts as absent.
    bool GetString(const std::string& key, std::string& out) const;
    bool GetInt(const std::string& key, int32_t& out) const;
    bool GetBool(const std::string& key, bool& out) const;

    // One leaf element of the file: its slash-separated key path, text and line.
    struct Entry {
        std::string key;
        std::string value;
        int line = 0;
    };
    // Every leaf element, in the order of the file.
    const std::vector<Entry>& Entries() const;
    // The file's path ("text" for parsed text), and "<origin>:<line>" of an entry.
    const std::string& Origin() const;
    std::string Where(const Entry& entry) const;
    // Logs that `key` holds `text`, which does not convert, and where.
    void ReportInvalid(const std::string& key, const std::string& text) const;

    static bool ParseInt(std::string_view text, int32_t& out);
    static bool ParseBool(std::string_view text, bool& out);

    struct Tree;
    explicit Config(std::unique_ptr<Tree> tree);
    ~Config() override;

  private:
    std::unique_ptr<Tree> tree;
};

}  // namespace Pelinor::Service
