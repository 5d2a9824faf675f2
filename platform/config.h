// The configuration file: XML under <config>, read by slash-separated key paths.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/object.h"

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

    struct Tree;
    explicit Config(std::unique_ptr<Tree> tree);
    ~Config() override;

  private:
    std::unique_ptr<Tree> tree;
};

}  // namespace Pelinor::Service
