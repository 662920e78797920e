#include "remote/OSCQueryNode.h"

#include <utility>

namespace quorva {
namespace {

// Calls `visit` with each non-empty component of a path split at '/'.
template <class Visit>
void ForEachComponent(std::string_view path, Visit&& visit) {
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        size_t end = slash == std::string_view::npos ? path.size() : slash;
        if (end > start && !visit(path.substr(start, end - start)))
            return;
        start = end + 1;
    }
}

} // namespace

OSCQueryNode::OSCQueryNode(std::string name, std::string fullPath)
    : _name(std::move(name)), _fullPath(std::move(fullPath)) {}

bool OSCQueryNode::IsRegistrableAddress(std::string_view address) {
    return !address.empty() && address.front() == '/' &&
           address.find_first_of("*?[]{}#, ") == std::string_view::npos;
}

void OSCQueryNode::registerAddress(std::string_view address, const std::string& typeSpec,
                                   const std::string& description, int64_t access,
                                   const nlohmann::json& range, const OSCQueryValueProvider& provider) {
    OSCQueryNode* node = this;
    ForEachComponent(address, [&](std::string_view component) {
        auto& child = node->_children[std::string(component)];
        if (!child) {
            std::string path = node->_fullPath == "/" ? "/" : node->_fullPath + "/";
            child = std::make_unique<OSCQueryNode>(std::string(component), path + std::string(component));
        }
        node = child.get();
        return true;
    });
    if (node == this && _fullPath == "/")
        return;
    node->_isMethod = true;
    if (node->_typeSpec.empty() && !typeSpec.empty())
        node->_typeSpec = typeSpec;
    if (node->_nodeDescription.empty() && !description.empty())
        node->_nodeDescription = description;
    if (access != 0)
        node->_access = access;
    if (range.is_array() && !range.empty())
        node->_range = range;
    if (provider)
        node->_valueProvider = provider;
}

const OSCQueryNode* OSCQueryNode::nodeForPath(std::string_view path) const {
    const OSCQueryNode* node = this;
    ForEachComponent(path, [&](std::string_view component) {
        auto found = node->_children.find(std::string(component));
        node = found == node->_children.end() ? nullptr : found->second.get();
        return node != nullptr;
    });
    return node;
}

nlohmann::json OSCQueryNode::jsonRepresentation(std::vector<OSCQueryValueJob>* jobs) const {
    return jsonRepresentation(jobs, nlohmann::json::json_pointer());
}

nlohmann::json OSCQueryNode::jsonRepresentation(std::vector<OSCQueryValueJob>* jobs,
                                                const nlohmann::json::json_pointer& where) const {
    nlohmann::json json = nlohmann::json::object();
    json["FULL_PATH"] = _fullPath;
    json["ACCESS"] = _access != 0 ? _access : _valueProvider ? 3 : _isMethod ? 2 : 0;
    if (_isMethod && !_typeSpec.empty())
        json["TYPE"] = _typeSpec;
    if (!_nodeDescription.empty())
        json["DESCRIPTION"] = _nodeDescription;
    if (!_range.empty())
        json["RANGE"] = _range;
    if (!_children.empty()) {
        nlohmann::json contents = nlohmann::json::object();
        for (const auto& [name, child] : _children)
            contents[name] = child->jsonRepresentation(jobs, where / "CONTENTS" / name);
        json["CONTENTS"] = std::move(contents);
    }
    if (jobs && _valueProvider)
        jobs->push_back({where, _valueProvider});
    return json;
}

} // namespace quorva
