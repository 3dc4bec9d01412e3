// A person's filter (class, colour, least likelihood, region, motion) as the index applies it
// to a document's facts: by definition the answer of the XPath that client/MetadataFilter
// builds for it. Names compare ASCII case folded; numbers are XPath numbers (libxml2's
// conversion of the text), so that a likelihood or an edge compares exactly as in the walk;
// every condition holds for one and the same object; a box that only touches the region does
// not overlap it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "client/MetadataFilter.h"
#include "index/DocumentFacts.h"

namespace rsindex {

class IndexFilter {
public:
    // Throws std::invalid_argument for a filter the clients would not send (an empty one,
    // or values that do not pass their checks).
    explicit IndexFilter(const rsclient::MetadataFilter& filter);

    bool matches(const DocumentFacts& facts) const;

    // What a person would want to see of the match: the first object that satisfies the
    // filter, if the filter asks about objects.
    const ObjectFacts* matchingObject(const DocumentFacts& facts) const;

private:
    bool objectMatches(const ObjectFacts& object) const;

    std::vector<std::string> classes_;
    std::string colour_;
    std::optional<double> minLikelihood_;
    std::optional<double> left_, top_, right_, bottom_;
    bool motion_ = false;
    bool aboutObjects_ = false;
};

// Widens `summary` by a document's facts, so that every filter that matches any document
// widened into it also matches the summary: an object for each kind of object (the same class
// names and colour names), with each name at its highest likelihood and the box that spans every
// box of that kind whose four edges are numbers; past 32 kinds, one object for all; motion if any
// had it. A filter that does not match a stretch's summary matches none of its documents.
void widenSummary(DocumentFacts& summary, const DocumentFacts& facts);

// XPath's number() of a text, as libxml2 computes it; NaN for none.
double xpathNumber(const std::optional<std::string>& text);

}  // namespace rsindex
