#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <libxml/parser.h>
#include <libxml/tree.h>

namespace utilia::test {

// A document as libxml2 reads it: what anybody who gets our reports does with them.
class XmlDocument final {
public:
    // Empty when it is not well-formed, also with regard to namespaces.
    static std::optional<XmlDocument> parse(std::string_view text) {
        const std::unique_ptr<xmlParserCtxt, void (*)(xmlParserCtxtPtr)> context(xmlNewParserCtxt(),
                                                                                 xmlFreeParserCtxt);
        const xmlDocPtr document = xmlCtxtReadMemory(
            context.get(), text.data(), static_cast<int>(text.size()), nullptr, nullptr,
            XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_HUGE);
        XmlDocument result(document);
        if (!document || !context->wellFormed || !context->nsWellFormed) return std::nullopt;
        return result;
    }

    static std::string attribute(const xmlNode* node, const char* name) {
        xmlChar* const value =
            xmlGetNoNsProp(const_cast<xmlNode*>(node), reinterpret_cast<const xmlChar*>(name));
        const std::string text = value ? reinterpret_cast<const char*>(value) : "(none)";
        xmlFree(value);
        return text;
    }
    static std::vector<std::string> attributeNames(const xmlNode* node) {
        std::vector<std::string> names;
        for (const xmlAttr* a = node->properties; a; a = a->next)
            names.emplace_back(reinterpret_cast<const char*>(a->name));
        return names;
    }
    static std::string name(const xmlNode* node) {
        return reinterpret_cast<const char*>(node->name);
    }
    static std::vector<const xmlNode*> children(const xmlNode* node) {
        std::vector<const xmlNode*> elements;
        for (const xmlNode* child = node->children; child; child = child->next) {
            if (child->type == XML_ELEMENT_NODE) elements.push_back(child);
        }
        return elements;
    }
    static const xmlNode* child(const xmlNode* node, std::string_view wanted) {
        for (const xmlNode* element : children(node)) {
            if (name(element) == wanted) return element;
        }
        return nullptr;
    }
    static std::string text(const xmlNode* node) {
        xmlChar* const content = xmlNodeGetContent(node);
        const std::string text = content ? reinterpret_cast<const char*>(content) : "";
        xmlFree(content);
        return text;
    }

    const xmlNode* root() const { return xmlDocGetRootElement(document_.get()); }
    // The records of a log.
    std::vector<const xmlNode*> events() const {
        const xmlNode* const data = child(root(), "CepCustomData");
        return data ? children(data) : std::vector<const xmlNode*>();
    }

private:
    explicit XmlDocument(xmlDocPtr document) : document_(document, xmlFreeDoc) {}
    std::unique_ptr<xmlDoc, void (*)(xmlDocPtr)> document_;
};

}  // namespace utilia::test
