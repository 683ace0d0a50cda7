#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvreport
{

// One value of a report: a quoted text or a group of named values. Names are
// kept in file order and may repeat (entries without an FQDD all carry "").
struct Node
{
    std::string name;
    std::string text;
    bool isObject = false;
    int line = 0;
    std::vector<Node> members;

    const Node* find(std::string_view key) const;
};

// What one collector run appended: the outer group, keyed by drive.
struct Document
{
    int line = 0;
    Node root;
};

struct ReadProblem
{
    int line = 0;
    std::string reason;
};

struct ReadResult
{
    std::vector<Document> documents;
    std::optional<ReadProblem> damage;
    // Text the collector is known to leave unbalanced, read on regardless.
    std::vector<ReadProblem> notes;
};

// Reads every document of a report file: appended runs back to back,
// unescaped names, a comma after every member.
ReadResult readReport(std::string_view text);

// Octets of a group made only of hex rows ("000010": "0a 0b ..."), in row
// order; nothing when the group is not such a dump.
std::optional<std::vector<unsigned>> decodeHexRows(const Node& group);

} // namespace qvreport
