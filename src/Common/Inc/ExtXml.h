// Lookup of named children and siblings in a libxml2 tree, and the one way an
// engine text becomes a tree.
#pragma once

#include <libxml/tree.h>

#ifdef __cplusplus
extern "C" {
#endif

// First direct child of pParent named pName (exact byte comparison, any node
// type); null when pParent is null or none matches.
xmlNodePtr xmlGetFirstChildNode(xmlNodePtr pParent, const xmlChar *pName);

// First node after pNode (pNode itself excluded) named pName; null if none.
xmlNodePtr xmlGetNextSiblingNode(xmlNodePtr pNode, const xmlChar *pName);

// Most attributes one start tag of an engine text may carry.
#define EXT_XML_MAX_ATTRIBUTES 256

// Parses nSize bytes of an engine text as xmlParseMemory does, and answers
// null, as xmlParseMemory does for a text that is not well-formed, also for
// a text that declares a document type or an entity, or whose start tag
// carries more than EXT_XML_MAX_ATTRIBUTES attributes. Nothing is expanded
// or loaded on the way. The caller frees the document with xmlFreeDoc.
xmlDocPtr ExtXmlParseEngineText(const char *pBuffer, int nSize);

#ifdef __cplusplus
}
#endif
