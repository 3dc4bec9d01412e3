// What the filters ask about one analytics document, read once when it is indexed: each
// object's class names and colour names (ASCII case folded, as the filters compare them) with
// their likelihood texts, its bounding boxes' edge texts, and the frame's motion. Texts are
// kept as written and turned into numbers as XPath does (libxml2's own conversion) when a
// filter compares them, so the answer is the walk's to the last digit.
#pragma once

#include <libxml/tree.h>

#include <optional>
#include <string>
#include <vector>

namespace rsindex {

struct NamedFact {
    std::string name;                       // folded string value
    std::optional<std::string> likelihood;  // the Likelihood attribute's text
};

struct BoxFact {
    std::optional<std::string> left, top, right, bottom;
};

struct ObjectFacts {
    std::vector<NamedFact> types;    // Appearance/Class/Type
    std::vector<NamedFact> colours;  // Appearance/Color/ColorCluster, by @Name
    std::vector<BoxFact> boxes;      // Appearance/Shape/BoundingBox
};

struct DocumentFacts {
    bool motion = false;               // a MotionAlarm notification whose State is "true"
    std::vector<ObjectFacts> objects;  // every Object element, in document order
};

// nullptr (a document that does not parse) has no facts: it matches no filter.
DocumentFacts factsOf(xmlDocPtr doc);

// A compact, self-delimiting form for the index's store, and back.
std::string encode(const DocumentFacts& facts);
DocumentFacts decode(const std::string& bytes);

std::string foldAscii(std::string text);

}  // namespace rsindex
