// XML from outside the host kit (replay files, mode files, event texts in a
// TV's log), parsed with the refusals the service applies to an engine's
// text: no document type or entity declaration (nothing is declared,
// defaulted or expanded), no start tag of more than kMaxAttributes attributes
// (libxml2 compares them pairwise), no XML_PARSE_HUGE, no network.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

typedef struct _xmlDoc *xmlDocPtr;

namespace tvhost {
namespace xml {

constexpr size_t kMaxAttributes = 256;

struct Untrusted {
    xmlDocPtr doc = nullptr; // the caller's to free; kept only when well-formed, or recovered with XML_PARSE_RECOVER
    bool bDeclared = false;  // it declared a document type or an entity: refused
    bool bCrowded = false;   // a start tag with more than kMaxAttributes attributes: refused
    bool bWellFormed = false;
    std::string error; // why it is refused or not well-formed, for a person ("line 3: ...")
};

// options are libxml2's, added to XML_PARSE_NONET | XML_PARSE_BIG_LINES
// (XML_PARSE_HUGE is never added).
Untrusted ParseUntrusted(std::string_view text, int options);

} // namespace xml
} // namespace tvhost
