#include "ExtXml.h"

#include <algorithm>
#include <cstring>

#include <libxml/parser.h>
#include <libxml/parserInternals.h>

namespace {

xmlNodePtr FindFrom(xmlNodePtr pNode, const xmlChar *pName)
{
    for (; pNode != nullptr; pNode = pNode->next)
        if (xmlStrcmp(pNode->name, pName) == 0)
            return pNode;
    return nullptr;
}

bool StartsWith(const char *p, const char *pEnd, const char *pWord)
{
    const size_t n = std::strlen(pWord);
    return static_cast<size_t>(pEnd - p) >= n && std::memcmp(p, pWord, n) == 0;
}

// Just past the first pWord at or after p; null when there is none.
const char *After(const char *p, const char *pEnd, const char *pWord)
{
    const char *pFound = std::search(p, pEnd, pWord, pWord + std::strlen(pWord));
    return pFound == pEnd ? nullptr : pFound + std::strlen(pWord);
}

// One pass over the text: does a start tag carry more than nMax attributes?
// libxml2's own check for repeated attributes compares every pair, so an
// element with a few hundred thousand of them holds the engine thread for
// minutes; this has to run before libxml2 sees the text. Each attribute of a
// start tag has exactly one '=' outside its quoted value. Comments, CDATA
// sections and processing instructions are skipped as libxml2 skips them; an
// unterminated one ends the text for libxml2 as well.
bool HasCrowdedStartTag(const char *p, const char *pEnd, size_t nMax)
{
    // Every attribute takes an '=': a text with no more of them than the limit
    // in all has no crowded tag, and an engine's event text is such a text.
    if (static_cast<size_t>(std::count(p, pEnd, '=')) <= nMax)
        return false;
    while (p < pEnd) {
        p = static_cast<const char *>(std::memchr(p, '<', static_cast<size_t>(pEnd - p)));
        if (p == nullptr)
            return false;
        ++p;
        if (StartsWith(p, pEnd, "!--"))
            p = After(p + 3, pEnd, "-->");
        else if (StartsWith(p, pEnd, "![CDATA["))
            p = After(p + 8, pEnd, "]]>");
        else if (StartsWith(p, pEnd, "?"))
            p = After(p + 1, pEnd, "?>");
        else if (StartsWith(p, pEnd, "!") || StartsWith(p, pEnd, "/"))
            continue;
        else {
            size_t nAttributes = 0;
            while (p < pEnd && *p != '>' && *p != '<') {
                if (*p == '"' || *p == '\'') {
                    p = static_cast<const char *>(std::memchr(p + 1, *p, static_cast<size_t>(pEnd - p - 1)));
                    if (p == nullptr)
                        return false;
                } else if (*p == '=' && ++nAttributes > nMax) {
                    return true;
                }
                ++p;
            }
        }
        if (p == nullptr)
            return false;
    }
    return false;
}

// Any document type declaration (with or without an internal subset) or
// entity declaration ends the parse at once, before anything is declared,
// defaulted or expanded.
void OnDeclaration(void *pContext)
{
    xmlParserCtxtPtr pCtxt = static_cast<xmlParserCtxtPtr>(pContext);
    *static_cast<bool *>(pCtxt->_private) = true;
    xmlStopParser(pCtxt);
}

void OnInternalSubset(void *pContext, const xmlChar *, const xmlChar *, const xmlChar *)
{
    OnDeclaration(pContext);
}

void OnEntityDecl(void *pContext, const xmlChar *, int, const xmlChar *, const xmlChar *, xmlChar *)
{
    OnDeclaration(pContext);
}

} // namespace

extern "C" xmlNodePtr xmlGetFirstChildNode(xmlNodePtr pParent, const xmlChar *pName)
{
    return pParent ? FindFrom(pParent->children, pName) : nullptr;
}

extern "C" xmlNodePtr xmlGetNextSiblingNode(xmlNodePtr pNode, const xmlChar *pName)
{
    return pNode ? FindFrom(pNode->next, pName) : nullptr;
}

extern "C" xmlDocPtr ExtXmlParseEngineText(const char *pBuffer, int nSize)
{
    if (pBuffer != nullptr && nSize > 0 && HasCrowdedStartTag(pBuffer, pBuffer + nSize, EXT_XML_MAX_ATTRIBUTES))
        return nullptr;

    // The same context, defaults and error output as xmlParseMemory. A real
    // engine never sends a document type: a text that declares one, or an
    // entity, is untrusted input trying to make libxml2 expand (flat
    // references to one large entity are not stopped by libxml2) or supply
    // default attributes, and is refused like a text that does not parse.
    xmlParserCtxtPtr pCtxt = xmlCreateMemoryParserCtxt(pBuffer, nSize);
    if (pCtxt == nullptr)
        return nullptr;
    bool bDeclared = false;
    pCtxt->_private = &bDeclared;
    pCtxt->sax->internalSubset = OnInternalSubset;
    pCtxt->sax->entityDecl = OnEntityDecl;
    xmlParseDocument(pCtxt);
    xmlDocPtr pDoc = pCtxt->myDoc;
    pCtxt->myDoc = nullptr;
    if (!pCtxt->wellFormed || bDeclared) {
        xmlFreeDoc(pDoc);
        pDoc = nullptr;
    }
    xmlFreeParserCtxt(pCtxt);
    return pDoc;
}
