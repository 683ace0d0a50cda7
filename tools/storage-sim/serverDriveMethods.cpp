#include "messageFields.hpp"
#include "server.hpp"

namespace storagesim
{
namespace
{

void appendStatus(sd_bus_message* reply, const StatusPair& status)
{
    appendValue(reply, "(tt)", Json::array({status.primary, status.secondary}));
}

void appendOctets(sd_bus_message* reply, const std::vector<uint8_t>& octets)
{
    checked(
        sd_bus_message_append_array(reply, 'y', octets.data(), octets.size()),
        "appending octets");
}

void writeRawData(sd_bus_message* reply, const RawDataEntry& entry)
{
    appendStatus(reply, entry.status);
    appendOctets(reply, entry.data);
}

void writeHardDrive(sd_bus_message* reply, const HardDriveEntry& entry)
{
    appendStatus(reply, entry.status);
    appendValues(
        reply, "yuutuss",
        Json::array({entry.field1, entry.field2, entry.protocol, entry.field4,
                     entry.attributes, entry.field6, entry.field7}));
    for (const auto& page : entry.pages)
    {
        appendOctets(reply, page.data);
        appendValue(reply, "y", page.code);
        appendValue(reply, "q", page.length);
    }
}

} // namespace

bool Server::driveMethod(sd_bus_message* call)
{
    std::string member = nullSafe(sd_bus_message_get_member(call));
    bool raw = member == "GetSmartPDSASSATARawData";
    bool sata = member == "GetSmartPDSATAHDDData";
    if (!raw && !sata && member != "GetSmartPDSASHDDData")
    {
        return false;
    }
    if (!hasArguments(call, "s"))
    {
        return true;
    }
    std::string fqdd = readString(call);
    logCall(call, Json::array({fqdd}));
    auto drive = scenario.drives.find(fqdd);
    if (drive != scenario.drives.end())
    {
        const DriveEntry& entry = drive->second;
        const auto& hdd = sata ? entry.sataHdd : entry.sasHdd;
        if (raw && entry.rawData)
        {
            const RawDataEntry& data = *entry.rawData;
            respond(call, data.fault, [&data](sd_bus_message* reply) {
                writeRawData(reply, data);
            });
            return true;
        }
        if (!raw && hdd)
        {
            respond(call, hdd->fault, [&hdd](sd_bus_message* reply) {
                writeHardDrive(reply, *hdd);
            });
            return true;
        }
    }
    respond(
        call, {},
        DbusError{notFoundError, member + ": no data for FQDD '" + fqdd + "'"});
    return true;
}

} // namespace storagesim
