#include "ExtXml.h"

static xmlNodePtr FindFrom(xmlNodePtr pNode, const xmlChar *pName)
{
    for (; pNode != nullptr; pNode = pNode->next)
        if (xmlStrcmp(pNode->name, pName) == 0)
            return pNode;
    return nullptr;
}

extern "C" xmlNodePtr xmlGetFirstChildNode(xmlNodePtr pParent, const xmlChar *pName)
{
    return pParent ? FindFrom(pParent->children, pName) : nullptr;
}

extern "C" xmlNodePtr xmlGetNextSiblingNode(xmlNodePtr pNode, const xmlChar *pName)
{
    return pNode ? FindFrom(pNode->next, pName) : nullptr;
}
