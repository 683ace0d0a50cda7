#include "nodeDescription.hpp"

#include "mapperTree.hpp"

#include <sstream>

namespace storagesim
{
namespace
{

constexpr const char* doctype =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection "
    "1.0//EN\"\n"
    "\"https://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n";

struct Argument
{
    const char* direction;
    std::string type;
    std::string name;
};

// Names, types and signatures written here are valid D-Bus names and
// signatures (the scenario checks them), which hold nothing XML must
// escape.
class XmlWriter
{
  public:
    std::string text() const
    {
        return out.str();
    }

    // False when the interface was written already: two objects at one
    // path (different services, both seen on the unique name) may share
    // one, and the first one listed answers for it.
    bool open(const std::string& interface)
    {
        if (!written.insert(interface).second)
        {
            return false;
        }
        out << " <interface name=\"" << interface << "\">\n";
        return true;
    }

    void close()
    {
        out << " </interface>\n";
    }

    void method(const char* name, const std::vector<Argument>& arguments)
    {
        if (arguments.empty())
        {
            out << "  <method name=\"" << name << "\"/>\n";
            return;
        }
        out << "  <method name=\"" << name << "\">\n";
        for (const auto& argument : arguments)
        {
            out << "   <arg type=\"" << argument.type << "\" name=\""
                << argument.name << "\" direction=\"" << argument.direction
                << "\"/>\n";
        }
        out << "  </method>\n";
    }

    // The scenario's values never change.
    void property(const Property& property)
    {
        out << "  <property name=\"" << property.name << "\" type=\""
            << property.signature << "\" access=\"read\">\n"
            << "   <annotation "
               "name=\"org.freedesktop.DBus.Property.EmitsChangedSignal\" "
               "value=\"const\"/>\n"
            << "  </property>\n";
    }

    void child(const std::string& name)
    {
        out << " <node name=\"" << name << "\"/>\n";
    }

    void raw(const char* text)
    {
        out << text;
    }

  private:
    std::ostringstream out;
    std::set<std::string> written;
};

void writeStandard(XmlWriter& xml, bool withProperties)
{
    xml.open(peerInterface);
    xml.method("Ping", {});
    xml.method("GetMachineId", {{"out", "s", "machine_uuid"}});
    xml.close();
    xml.open(introspectableInterface);
    xml.method("Introspect", {{"out", "s", "xml_data"}});
    xml.close();
    if (withProperties)
    {
        xml.open(propertiesInterface);
        xml.method("Get", {{"in", "s", "interface_name"},
                           {"in", "s", "property_name"},
                           {"out", "v", "value"}});
        xml.method("GetAll",
                   {{"in", "s", "interface_name"}, {"out", "a{sv}", "props"}});
        xml.close();
    }
}

void writeMapper(XmlWriter& xml)
{
    if (xml.open(mapperInterface))
    {
        xml.method("GetSubTree", {{"in", "s", "subtree"},
                                  {"in", "i", "depth"},
                                  {"in", "as", "interfaces"},
                                  {"out", "a{sa{sas}}", "object_map"}});
        xml.close();
    }
}

// A hard-drive reply: the status pair, seven fields and the log pages.
std::vector<Argument> hardDriveArguments(std::size_t pageCount)
{
    std::vector<Argument> arguments = {
        {"in", "s", "fqdd"},        {"out", "(tt)", "status"},
        {"out", "y", "field1"},     {"out", "u", "field2"},
        {"out", "u", "protocol"},   {"out", "t", "field4"},
        {"out", "u", "attributes"}, {"out", "s", "field6"},
        {"out", "s", "field7"}};
    for (std::size_t i = 0; i < pageCount; ++i)
    {
        std::string page = "page" + std::to_string(i);
        arguments.push_back({"out", "ay", page + "_data"});
        arguments.push_back({"out", "y", page + "_code"});
        arguments.push_back({"out", "q", page + "_length"});
    }
    return arguments;
}

void writeDrive(XmlWriter& xml)
{
    if (xml.open(driveInterface))
    {
        xml.method("GetSmartPDSASSATARawData", {{"in", "s", "fqdd"},
                                                {"out", "(tt)", "status"},
                                                {"out", "ay", "data"}});
        xml.method("GetSmartPDSATAHDDData", hardDriveArguments(sataPageCount));
        xml.method("GetSmartPDSASHDDData", hardDriveArguments(sasPageCount));
        xml.close();
    }
}

bool isStandard(const std::string& interface)
{
    return interface == peerInterface || interface == introspectableInterface ||
           interface == propertiesInterface;
}

} // namespace

std::string introspectionXml(const NodeDescription& node)
{
    XmlWriter xml;
    xml.raw(doctype);
    xml.raw("<node>\n");
    writeStandard(xml, !node.objects.empty());
    if (node.mapper)
    {
        writeMapper(xml);
    }
    if (node.drive)
    {
        writeDrive(xml);
    }
    for (const auto* object : node.objects)
    {
        for (const auto& interface : object->interfaces)
        {
            if (isStandard(interface.name) || !xml.open(interface.name))
            {
                continue;
            }
            for (const auto& property : interface.properties)
            {
                xml.property(property);
            }
            xml.close();
        }
    }
    for (const auto& child : node.children)
    {
        xml.child(child);
    }
    xml.raw("</node>\n");
    return xml.text();
}

} // namespace storagesim
