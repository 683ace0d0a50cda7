#pragma once

#include "scenario.hpp"

#include <set>
#include <string>
#include <vector>

namespace storagesim
{

// One node of the object tree as one service (or the unique name) shows it.
struct NodeDescription
{
    bool mapper = false; // the mapper's own object
    bool drive = false;  // the storage service's object of SMART methods
    std::vector<const InventoryObject*> objects; // scenario objects here
    std::set<std::string> children;              // next path components
};

// The node's introspection data, laid out as sd-bus lays out its own.
std::string introspectionXml(const NodeDescription& node);

} // namespace storagesim
