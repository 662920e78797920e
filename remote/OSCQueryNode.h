#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quorva {

// Answers the current value of an OSC method as the list of its arguments (one value for the
// recorder's parameters), or null when it has none. Always called on the main thread.
using OSCQueryValueProvider = std::function<nlohmann::json()>;

// A value still to be read for a JSON tree being answered: where the method's object sits in that tree
// and who knows its value. Providers run on the main thread while the tree is built elsewhere, so the
// tree is built first, with its jobs, and the values are put in afterwards.
struct OSCQueryValueJob {
    nlohmann::json::json_pointer where;
    OSCQueryValueProvider provider;
};

// One node of the OSCQuery namespace: a container for the path components below it and, where an
// address was registered exactly here, the description of that OSC method. The server owns the root
// and touches the tree on its state queue only.
class OSCQueryNode {
public:
    OSCQueryNode(std::string name, std::string fullPath);
    static std::unique_ptr<OSCQueryNode> makeRoot() { return std::make_unique<OSCQueryNode>("", "/"); }

    bool isMethod() const { return _isMethod; }
    const std::string& name() const { return _name; }
    const std::string& fullPath() const { return _fullPath; }
    const std::string& typeSpec() const { return _typeSpec; }
    const std::string& nodeDescription() const { return _nodeDescription; }
    int64_t access() const { return _access; } // 0 unknown, 1 read-only, 2 write-only, 3 read-write
    const nlohmann::json& range() const { return _range; }
    const OSCQueryValueProvider& valueProvider() const { return _valueProvider; }
    const std::map<std::string, std::unique_ptr<OSCQueryNode>>& children() const { return _children; }

    // Whether an address may enter the namespace: not empty, beginning with '/', and without the
    // characters that OSC patterns and OSCQuery paths give a meaning to ("*?[]{}#," and the blank).
    static bool IsRegistrableAddress(std::string_view address);

    // Makes the nodes down to `address` (empty components skipped, so "//a/" is "/a") and merges the
    // method into the last: the first non-empty type and description stay; a non-zero access, a
    // non-empty range and a provider replace what was there. The root itself never becomes a method.
    // The address is assumed registrable.
    void registerAddress(std::string_view address, const std::string& typeSpec,
                         const std::string& description, int64_t access, const nlohmann::json& range,
                         const OSCQueryValueProvider& provider);

    // The node at `path` ("/" and "" are this node), or null when a component is missing.
    const OSCQueryNode* nodeForPath(std::string_view path) const;

    // This node's OSCQuery object with its children's, recursively. When `jobs` is given, one job is
    // appended for each node that has a value provider; its pointer is relative to the object answered.
    nlohmann::json jsonRepresentation(std::vector<OSCQueryValueJob>* jobs = nullptr) const;

private:
    nlohmann::json jsonRepresentation(std::vector<OSCQueryValueJob>* jobs,
                                      const nlohmann::json::json_pointer& where) const;

    bool _isMethod = false;
    std::string _name;
    std::string _fullPath;
    std::string _typeSpec;
    std::string _nodeDescription;
    int64_t _access = 0;
    nlohmann::json _range = nlohmann::json::array();
    OSCQueryValueProvider _valueProvider;
    std::map<std::string, std::unique_ptr<OSCQueryNode>> _children;
};

} // namespace quorva
