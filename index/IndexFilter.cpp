#include "index/IndexFilter.h"

#include <libxml/xpath.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace rsindex {

double xpathNumber(const std::optional<std::string>& text)
{
    if (!text) return std::nan("");
    return xmlXPathCastStringToNumber(reinterpret_cast<const xmlChar*>(text->c_str()));
}

IndexFilter::IndexFilter(const rsclient::MetadataFilter& f)
{
    if (f.empty()) throw std::invalid_argument("an empty filter");
    for (const auto& name : f.classes) {
        if (!rsclient::checkName(name).empty()) throw std::invalid_argument("class: bad name");
        classes_.push_back(foldAscii(name));
    }
    if (!f.colour.empty()) {
        if (!rsclient::checkName(f.colour).empty()) throw std::invalid_argument("colour: bad name");
        colour_ = foldAscii(f.colour);
    }
    if (!f.minLikelihood.empty()) {
        if (!rsclient::checkLikelihood(f.minLikelihood).empty()) {
            throw std::invalid_argument("minLikelihood: bad value");
        }
        minLikelihood_ = xpathNumber(f.minLikelihood);
    }
    if (f.region) {
        const auto& r = *f.region;
        if (!rsclient::checkRegion(r.left + "," + r.top + "," + r.right + "," + r.bottom).empty()) {
            throw std::invalid_argument("region: bad value");
        }
        left_ = xpathNumber(r.left);
        top_ = xpathNumber(r.top);
        right_ = xpathNumber(r.right);
        bottom_ = xpathNumber(r.bottom);
    }
    motion_ = f.motion;
    aboutObjects_ = !classes_.empty() || minLikelihood_ || !colour_.empty() || left_;
}

bool IndexFilter::objectMatches(const ObjectFacts& object) const
{
    if (!classes_.empty() || minLikelihood_) {
        bool found = false;
        for (const auto& type : object.types) {
            const bool named = classes_.empty() || std::find(classes_.begin(), classes_.end(),
                                                             type.name) != classes_.end();
            if (named && (!minLikelihood_ || xpathNumber(type.likelihood) >= *minLikelihood_)) {
                found = true;
                break;
            }
        }
        if (!found) return false;
    }
    if (!colour_.empty()) {
        bool found = false;
        for (const auto& colour : object.colours) found = found || colour.name == colour_;
        if (!found) return false;
    }
    if (left_) {
        bool found = false;
        for (const auto& box : object.boxes) {
            found = found || (xpathNumber(box.left) < *right_ && xpathNumber(box.right) > *left_ &&
                              xpathNumber(box.top) < *bottom_ && xpathNumber(box.bottom) > *top_);
        }
        if (!found) return false;
    }
    return true;
}

const ObjectFacts* IndexFilter::matchingObject(const DocumentFacts& facts) const
{
    if (!aboutObjects_) return nullptr;
    for (const auto& object : facts.objects) {
        if (objectMatches(object)) return &object;
    }
    return nullptr;
}

bool IndexFilter::matches(const DocumentFacts& facts) const
{
    if (motion_ && !facts.motion) return false;
    return !aboutObjects_ || matchingObject(facts) != nullptr;
}

namespace {

// The named fact kept at its highest likelihood; one without a number is kept only while there
// is nothing else under its name.
void widenNamed(std::vector<NamedFact>& kept, const NamedFact& fact)
{
    const auto it = std::find_if(kept.begin(), kept.end(),
                                 [&](const NamedFact& k) { return k.name == fact.name; });
    if (it == kept.end()) {
        kept.push_back(fact);
    } else if (xpathNumber(fact.likelihood) > xpathNumber(it->likelihood) ||
               std::isnan(xpathNumber(it->likelihood))) {
        it->likelihood = fact.likelihood;
    }
}

// The edge further out, by its number: lower for left and top, higher for right and bottom.
void widenEdge(std::optional<std::string>& kept, const std::optional<std::string>& edge, bool lower)
{
    const double k = xpathNumber(kept), e = xpathNumber(edge);
    if (!kept || (lower ? e < k : e > k)) kept = edge;
}

}  // namespace

namespace {

// Kinds of object a summary tells apart before it folds them all into one.
constexpr std::size_t kMostKinds = 32;

std::vector<std::string> namesOf(const std::vector<NamedFact>& facts)
{
    std::vector<std::string> names;
    names.reserve(facts.size());
    for (const auto& f : facts) names.push_back(f.name);
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

bool sameKind(const ObjectFacts& a, const ObjectFacts& b)
{
    return namesOf(a.types) == namesOf(b.types) && namesOf(a.colours) == namesOf(b.colours);
}

void widenObject(ObjectFacts& kept, const ObjectFacts& object)
{
    for (const auto& type : object.types) widenNamed(kept.types, type);
    for (const auto& colour : object.colours) widenNamed(kept.colours, colour);
    for (const auto& box : object.boxes) {
        const bool numbers =
            !std::isnan(xpathNumber(box.left)) && !std::isnan(xpathNumber(box.top)) &&
            !std::isnan(xpathNumber(box.right)) && !std::isnan(xpathNumber(box.bottom));
        if (!numbers) continue;  // overlaps no region
        if (kept.boxes.empty()) {
            kept.boxes.push_back(box);
            continue;
        }
        BoxFact& span = kept.boxes.front();
        widenEdge(span.left, box.left, true);
        widenEdge(span.top, box.top, true);
        widenEdge(span.right, box.right, false);
        widenEdge(span.bottom, box.bottom, false);
    }
}

}  // namespace

void widenSummary(DocumentFacts& summary, const DocumentFacts& facts)
{
    summary.motion = summary.motion || facts.motion;
    for (const auto& object : facts.objects) {
        auto kind = std::find_if(summary.objects.begin(), summary.objects.end(),
                                 [&](const ObjectFacts& kept) { return sameKind(kept, object); });
        if (kind == summary.objects.end()) kind = summary.objects.insert(kind, ObjectFacts{});
        widenObject(*kind, object);
    }
    if (summary.objects.size() > kMostKinds) {
        ObjectFacts all;
        for (const auto& kind : summary.objects) widenObject(all, kind);
        summary.objects = {all};
    }
}

}  // namespace rsindex
