#pragma once

#include "scenario.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace storagesim
{

inline constexpr const char* introspectableInterface =
    "org.freedesktop.DBus.Introspectable";
inline constexpr const char* peerInterface = "org.freedesktop.DBus.Peer";
inline constexpr const char* propertiesInterface =
    "org.freedesktop.DBus.Properties";
inline constexpr const char* resourceNotFoundError =
    "xyz.openbmc_project.Common.Error.ResourceNotFound";
inline constexpr const char* resourceNotFoundMessage =
    "The resource is not found.";

// Whether `path` lies at or below `root`, no more than `depth` levels down
// (depth 0 or less: any number of levels). A trailing '/' on `root` is
// ignored.
bool inSubTree(const std::string& path, std::string root, int32_t depth);

// Path → service → interfaces, each level in byte order.
using SortedSubTree =
    std::map<std::string, std::map<std::string, std::set<std::string>>>;

// What the OpenBMC object mapper answers to GetSubTree when it knows the
// `known` objects; nothing when no object lies at or below `root`.
std::optional<SortedSubTree>
    realLikeSubTree(const std::vector<const InventoryObject*>& known,
                    const std::string& root, int32_t depth,
                    const std::vector<std::string>& filter);

} // namespace storagesim
