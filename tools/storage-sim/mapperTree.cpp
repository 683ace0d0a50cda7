#include "mapperTree.hpp"

#include <algorithm>
#include <utility>

namespace storagesim
{
namespace
{

// Every object a service serves through sd-bus or sdbusplus carries these,
// and the mapper lists them with the object's own interfaces; a path node
// that only leads to deeper objects carries nothing else.
std::set<std::string> standardInterfaces()
{
    return {introspectableInterface, peerInterface, propertiesInterface};
}

bool matches(const std::set<std::string>& interfaces,
             const std::vector<std::string>& filter)
{
    return filter.empty() ||
           std::any_of(filter.begin(), filter.end(),
                       [&interfaces](const std::string& name) {
        return interfaces.contains(name);
           });
}

std::string withoutTrailingSlash(std::string path)
{
    while (path.size() > 1 && path.back() == '/')
    {
        path.pop_back();
    }
    return path;
}

} // namespace

bool inSubTree(const std::string& path, std::string root, int32_t depth)
{
    root = withoutTrailingSlash(std::move(root));
    std::string rest;
    if (root == "/")
    {
        rest = path == "/" ? "" : path;
    }
    else if (path == root)
    {
        rest = "";
    }
    else if (path.starts_with(root + "/"))
    {
        rest = path.substr(root.size());
    }
    else
    {
        return false;
    }
    auto levels = std::count(rest.begin(), rest.end(), '/');
    return depth <= 0 || levels <= depth;
}

std::optional<SortedSubTree>
    realLikeSubTree(const std::vector<const InventoryObject*>& known,
                    const std::string& root, int32_t depth,
                    const std::vector<std::string>& filter)
{
    const std::string base = withoutTrailingSlash(root);
    bool rootExists = false;
    SortedSubTree tree;
    // The root itself is never part of the answer, neither as an object
    // nor as a node on the way to one.
    auto add = [&](const std::string& path, const std::string& service,
                   const std::set<std::string>& interfaces) {
        if (path != base && inSubTree(path, base, depth))
        {
            tree[path][service].insert(interfaces.begin(), interfaces.end());
        }
    };
    // The nodes on the way to an object carry only the standard interfaces:
    // an empty filter lists them, as does one naming a standard interface.
    const std::set<std::string> standard = standardInterfaces();
    const bool listNodes = matches(standard, filter);
    for (const auto* object : known)
    {
        if (!inSubTree(object->path, base, 0))
        {
            continue;
        }
        rootExists = true;
        std::set<std::string> interfaces = standard;
        for (const auto& interface : object->interfaces)
        {
            interfaces.insert(interface.name);
        }
        if (matches(interfaces, filter))
        {
            add(object->path, object->service, interfaces);
        }
        for (auto end = object->path.rfind('/');
             listNodes && end != 0 && end != std::string::npos;
             end = object->path.rfind('/', end - 1))
        {
            add(object->path.substr(0, end), object->service, standard);
        }
    }
    if (!rootExists)
    {
        return std::nullopt;
    }
    return tree;
}

} // namespace storagesim
