#include "index/DocumentFacts.h"

#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "index/CompactBytes.h"

namespace rsindex {

namespace {

// XPath's name test without a prefix: this local name, in no namespace.
bool named(xmlNodePtr node, const char* name)
{
    return node->type == XML_ELEMENT_NODE && node->ns == nullptr &&
           std::strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

std::vector<xmlNodePtr> children(xmlNodePtr parent, const char* name)
{
    std::vector<xmlNodePtr> found;
    for (xmlNodePtr child = parent->children; child != nullptr; child = child->next) {
        if (named(child, name)) found.push_back(child);
    }
    return found;
}

// The path's elements, each step a child step with a plain name test.
std::vector<xmlNodePtr> path(xmlNodePtr from, std::initializer_list<const char*> steps)
{
    std::vector<xmlNodePtr> nodes{from};
    for (const char* step : steps) {
        std::vector<xmlNodePtr> next;
        for (xmlNodePtr node : nodes) {
            for (xmlNodePtr child : children(node, step)) next.push_back(child);
        }
        nodes.swap(next);
    }
    return nodes;
}

std::optional<std::string> attribute(xmlNodePtr node, const char* name)
{
    xmlChar* value = xmlGetNoNsProp(node, reinterpret_cast<const xmlChar*>(name));
    if (value == nullptr) return std::nullopt;
    std::string text(reinterpret_cast<const char*>(value));
    xmlFree(value);
    return text;
}

std::string stringValue(xmlNodePtr node)
{
    xmlChar* content = xmlNodeGetContent(node);
    std::string text = content ? reinterpret_cast<const char*>(content) : "";
    xmlFree(content);
    return text;
}

ObjectFacts objectFacts(xmlNodePtr object)
{
    ObjectFacts facts;
    for (xmlNodePtr type : path(object, {"Appearance", "Class", "Type"})) {
        facts.types.push_back({foldAscii(stringValue(type)), attribute(type, "Likelihood")});
    }
    for (xmlNodePtr cluster : path(object, {"Appearance", "Color", "ColorCluster"})) {
        if (auto name = attribute(cluster, "Name")) {
            facts.colours.push_back({foldAscii(*name), attribute(cluster, "Likelihood")});
        }
    }
    for (xmlNodePtr box : path(object, {"Appearance", "Shape", "BoundingBox"})) {
        facts.boxes.push_back({attribute(box, "left"), attribute(box, "top"),
                               attribute(box, "right"), attribute(box, "bottom")});
    }
    return facts;
}

bool motionAlarm(xmlNodePtr message)
{
    if (attribute(message, "Topic") != std::optional<std::string>("VideoSource/MotionAlarm")) {
        return false;
    }
    for (xmlNodePtr item : path(message, {"Data", "SimpleItem"})) {
        if (attribute(item, "Name") == std::optional<std::string>("State") &&
            attribute(item, "Value") == std::optional<std::string>("true")) {
            return true;
        }
    }
    return false;
}

void putNamed(std::string& out, const std::vector<NamedFact>& facts)
{
    putWord(out, uint32_t(facts.size()));
    for (const auto& f : facts) {
        putText(out, f.name);
        putText(out, f.likelihood);
    }
}

std::vector<NamedFact> readNamed(Reader& in)
{
    std::vector<NamedFact> facts(in.count());
    for (auto& f : facts) {
        f.name = in.text().value_or("");
        f.likelihood = in.text();
    }
    return facts;
}

}  // namespace

std::string foldAscii(std::string text)
{
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
    }
    return text;
}

DocumentFacts factsOf(xmlDocPtr doc)
{
    DocumentFacts facts;
    if (doc == nullptr) return facts;
    // Every element in document order, without recursion: //Object and //NotificationMessage.
    for (xmlNodePtr node = xmlDocGetRootElement(doc); node != nullptr;) {
        if (named(node, "Object")) facts.objects.push_back(objectFacts(node));
        if (named(node, "NotificationMessage") && motionAlarm(node)) facts.motion = true;
        if (node->children != nullptr) {
            node = node->children;
            continue;
        }
        while (node != nullptr && node->next == nullptr) {
            node = node->parent;
            if (node != nullptr && node->type == XML_DOCUMENT_NODE) node = nullptr;
        }
        if (node != nullptr) node = node->next;
    }
    return facts;
}

std::string encode(const DocumentFacts& facts)
{
    std::string out;
    putWord(out, uint32_t(facts.objects.size()));
    for (const auto& object : facts.objects) {
        putNamed(out, object.types);
        putNamed(out, object.colours);
        putWord(out, uint32_t(object.boxes.size()));
        for (const auto& box : object.boxes) {
            for (const auto* edge : {&box.left, &box.top, &box.right, &box.bottom})
                putText(out, *edge);
        }
    }
    return out;
}

DocumentFacts decode(const std::string& bytes)
{
    DocumentFacts facts;
    Reader in(bytes);
    facts.objects.resize(in.count());
    for (auto& object : facts.objects) {
        object.types = readNamed(in);
        object.colours = readNamed(in);
        object.boxes.resize(in.count());
        for (auto& box : object.boxes) {
            box.left = in.text();
            box.top = in.text();
            box.right = in.text();
            box.bottom = in.text();
        }
    }
    return facts;
}

}  // namespace rsindex
