#include "tvhost/untrusted_xml.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>

namespace tvhost {
namespace xml {

namespace {

bool StartsWith(const char *p, const char *pEnd, const char *word)
{
    const size_t n = std::strlen(word);
    return static_cast<size_t>(pEnd - p) >= n && std::memcmp(p, word, n) == 0;
}

const char *After(const char *p, const char *pEnd, const char *word)
{
    const char *found = std::search(p, pEnd, word, word + std::strlen(word));
    return found == pEnd ? nullptr : found + std::strlen(word);
}

// One pass: does a start tag carry more than kMaxAttributes attributes? Each
// takes one '=' outside its quoted value; comments, CDATA and processing
// instructions are skipped as libxml2 skips them.
bool HasCrowdedStartTag(const char *p, const char *pEnd)
{
    if (static_cast<size_t>(std::count(p, pEnd, '=')) <= kMaxAttributes)
        return false;
    while (p && p < pEnd) {
        p = static_cast<const char *>(std::memchr(p, '<', static_cast<size_t>(pEnd - p)));
        if (!p)
            return false;
        ++p;
        if (StartsWith(p, pEnd, "!--"))
            p = After(p + 3, pEnd, "-->");
        else if (StartsWith(p, pEnd, "![CDATA["))
            p = After(p + 8, pEnd, "]]>");
        else if (StartsWith(p, pEnd, "?"))
            p = After(p + 1, pEnd, "?>");
        else
            for (size_t n = 0; p < pEnd && *p != '>' && *p != '<'; ++p) {
                if (*p == '"' || *p == '\'') {
                    p = static_cast<const char *>(std::memchr(p + 1, *p, static_cast<size_t>(pEnd - p - 1)));
                    if (!p)
                        return false;
                } else if (*p == '=' && ++n > kMaxAttributes) {
                    return true;
                }
            }
    }
    return false;
}

// A document type or entity declaration stops the parse before anything is
// declared, defaulted or expanded.
void OnDeclaration(void *context)
{
    auto *ctxt = static_cast<xmlParserCtxtPtr>(context);
    *static_cast<bool *>(ctxt->_private) = true;
    xmlStopParser(ctxt);
}

void OnInternalSubset(void *context, const xmlChar *, const xmlChar *, const xmlChar *)
{
    OnDeclaration(context);
}

void OnEntityDecl(void *context, const xmlChar *, int, const xmlChar *, const xmlChar *, xmlChar *)
{
    OnDeclaration(context);
}

} // namespace

Untrusted ParseUntrusted(std::string_view text, int options)
{
    Untrusted out;
    if (text.size() > static_cast<size_t>(INT_MAX)) {
        out.error = "larger than 2 GiB";
        return out;
    }
    if (HasCrowdedStartTag(text.data(), text.data() + text.size())) {
        out.bCrowded = true;
        out.error = "a start tag with more than " + std::to_string(kMaxAttributes) + " attributes";
        return out;
    }
    xmlParserCtxtPtr ctxt = xmlCreateMemoryParserCtxt(text.data(), static_cast<int>(text.size()));
    if (!ctxt) {
        out.error = "out of memory";
        return out;
    }
    xmlCtxtUseOptions(ctxt, (options & ~XML_PARSE_HUGE) | XML_PARSE_NONET | XML_PARSE_BIG_LINES);
    ctxt->_private = &out.bDeclared;
    ctxt->sax->internalSubset = OnInternalSubset;
    ctxt->sax->entityDecl = OnEntityDecl;
    xmlParseDocument(ctxt);
    out.doc = ctxt->myDoc;
    ctxt->myDoc = nullptr;
    out.bWellFormed = ctxt->wellFormed && !out.bDeclared;
    if (out.bDeclared) {
        out.error = "a document type or entity declaration (refused, as in an engine's text)";
    } else if (!ctxt->wellFormed) {
        out.error = "line " + std::to_string(ctxt->lastError.line) + ": " +
                    (ctxt->lastError.message ? ctxt->lastError.message : "not well-formed");
        while (!out.error.empty() && (out.error.back() == '\n' || out.error.back() == ' '))
            out.error.pop_back();
    }
    const bool bRecover = (options & XML_PARSE_RECOVER) != 0;
    if (out.bDeclared || (!ctxt->wellFormed && !bRecover)) {
        xmlFreeDoc(out.doc);
        out.doc = nullptr;
    }
    xmlFreeParserCtxt(ctxt);
    return out;
}

} // namespace xml
} // namespace tvhost
