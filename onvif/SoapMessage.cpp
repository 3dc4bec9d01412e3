#include "onvif/SoapMessage.h"

#include <libxml/parser.h>
#include <libxml/xmlwriter.h>

#include <cstring>

#include "onvif/SoapFault.h"

namespace onvif {

namespace {

constexpr const char* kSoap11Namespace = "http://schemas.xmlsoap.org/soap/envelope/";
constexpr const char* kAddressingPrefix = "http://www.w3.org/2005/08/addressing";
// Nested deeper than any request of the standard's; the body's size is bounded by the gateway.
constexpr int kMostDepth = 32;

bool named(const xmlNode* node, const char* name)
{
    return node != nullptr && node->type == XML_ELEMENT_NODE &&
           std::strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

std::string namespaceOf(const xmlNode* node)
{
    return node->ns != nullptr && node->ns->href != nullptr
               ? reinterpret_cast<const char*>(node->ns->href)
               : "";
}

const xmlNode* firstElement(const xmlNode* node)
{
    for (; node != nullptr; node = node->next) {
        if (node->type == XML_ELEMENT_NODE) return node;
    }
    return nullptr;
}

int depthOf(const xmlNode* node, int depth)
{
    int most = depth;
    for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
        if (child->type != XML_ELEMENT_NODE) continue;
        most = std::max(most, depthOf(child, depth + 1));
        if (most > kMostDepth) break;
    }
    return most;
}

SoapFault malformed(const std::string& reason)
{
    return SoapFault(SoapFault::Code::Sender, {"ter:WellFormed"}, reason);
}

bool mustUnderstand(const xmlNode* block)
{
    const std::string value = attributeOf(block, "mustUnderstand");
    return value == "true" || value == "1";
}

}  // namespace

std::vector<const xmlNode*> childrenNamed(const xmlNode* parent, const char* name)
{
    std::vector<const xmlNode*> found;
    if (parent == nullptr) return found;
    for (const xmlNode* child = parent->children; child != nullptr; child = child->next) {
        if (named(child, name)) found.push_back(child);
    }
    return found;
}

const xmlNode* childNamed(const xmlNode* parent, const char* name)
{
    if (parent == nullptr) return nullptr;
    for (const xmlNode* child = parent->children; child != nullptr; child = child->next) {
        if (named(child, name)) return child;
    }
    return nullptr;
}

std::string textOf(const xmlNode* element)
{
    if (element == nullptr) return {};
    xmlChar* content = xmlNodeGetContent(element);
    std::string text = content ? reinterpret_cast<const char*>(content) : "";
    xmlFree(content);
    return text;
}

std::string attributeOf(const xmlNode* element, const char* name)
{
    if (element == nullptr) return {};
    for (const xmlAttr* a = element->properties; a != nullptr; a = a->next) {
        if (std::strcmp(reinterpret_cast<const char*>(a->name), name) != 0) continue;
        xmlChar* value = xmlNodeListGetString(element->doc, a->children, 1);
        std::string text = value ? reinterpret_cast<const char*>(value) : "";
        xmlFree(value);
        return text;
    }
    return {};
}

SoapRequest::SoapRequest(const std::string& text) : doc_(nullptr, xmlFreeDoc)
{
    if (text.empty()) throw malformed("the request has no body: a SOAP 1.2 envelope is expected");
    doc_.reset(xmlReadMemory(text.data(), int(text.size()), "request.xml", nullptr,
                             XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
    if (!doc_) throw malformed("the request is not well-formed XML");
    if (doc_->intSubset != nullptr) throw malformed("a SOAP message may not carry a DTD");
    const xmlNode* envelope = xmlDocGetRootElement(doc_.get());
    if (!named(envelope, "Envelope")) throw malformed("the request is not a SOAP envelope");
    const std::string version = namespaceOf(envelope);
    if (version == kSoap11Namespace) {
        throw SoapFault(SoapFault::Code::VersionMismatch, {},
                        "this service speaks SOAP 1.2 (" + std::string(kSoapNamespace) + ")");
    }
    if (version != kSoapNamespace) {
        throw SoapFault(SoapFault::Code::VersionMismatch, {},
                        "the envelope is not in the SOAP 1.2 namespace");
    }
    if (depthOf(envelope, 1) > kMostDepth) throw malformed("the request nests too deep");
    const xmlNode* first = firstElement(envelope->children);
    const xmlNode* body = first;
    if (named(first, "Header")) {
        readHeader(first);
        body = firstElement(first->next);
    }
    if (!named(body, "Body") || namespaceOf(body) != kSoapNamespace) {
        throw malformed("the envelope has no SOAP Body");
    }
    operationElement_ = firstElement(body->children);
    if (operationElement_ == nullptr) throw malformed("the SOAP Body names no operation");
    operation_ = reinterpret_cast<const char*>(operationElement_->name);
    namespace_ = namespaceOf(operationElement_);
}

void SoapRequest::readHeader(const xmlNode* header)
{
    for (const xmlNode* block = firstElement(header->children); block != nullptr;
         block = firstElement(block->next)) {
        if (named(block, "Security")) {
            const xmlNode* token = childNamed(block, "UsernameToken");
            if (token == nullptr) continue;
            const xmlNode* password = childNamed(token, "Password");
            const std::string type = attributeOf(password, "Type");
            token_ = UsernameToken{
                textOf(childNamed(token, "Username")), textOf(password),
                type.size() >= 14 && type.compare(type.size() - 14, 14, "PasswordDigest") == 0,
                textOf(childNamed(token, "Nonce")), textOf(childNamed(token, "Created"))};
            continue;
        }
        // WS-Addressing's blocks say where the message goes, which its path already says.
        if (namespaceOf(block).compare(0, std::strlen(kAddressingPrefix), kAddressingPrefix) == 0)
            continue;
        if (mustUnderstand(block)) {
            throw SoapFault(SoapFault::Code::MustUnderstand, {},
                            "the header block " +
                                std::string(reinterpret_cast<const char*>(block->name)) +
                                " is not understood here");
        }
    }
}

struct SoapWriter::Writer {
    xmlBufferPtr buffer = xmlBufferCreate();
    xmlTextWriterPtr writer = xmlNewTextWriterMemory(buffer, 0);
    ~Writer()
    {
        if (writer != nullptr) xmlFreeTextWriter(writer);
        xmlBufferFree(buffer);
    }
};

namespace {

const xmlChar* x(const char* text) { return reinterpret_cast<const xmlChar*>(text); }

const char* const kPrefixes[][2] = {
    {"xmlns:env", kSoapNamespace},
    {"xmlns:ter", "http://www.onvif.org/ver10/error"},
    {"xmlns:tt", kSchemaNamespace},
    {"xmlns:tds", kDeviceNamespace},
    {"xmlns:tse", kSearchNamespace},
    {"xmlns:wsnt", "http://docs.oasis-open.org/wsn/b-2"},
    {"xmlns:tns1", "http://www.onvif.org/ver10/topics"},
};

}  // namespace

SoapWriter::SoapWriter() : writer_(std::make_unique<Writer>())
{
    if (writer_->buffer == nullptr || writer_->writer == nullptr) throw std::bad_alloc();
    xmlTextWriterStartDocument(writer_->writer, nullptr, "UTF-8", nullptr);
    open("env:Envelope");
    for (const auto& prefix : kPrefixes) attribute(prefix[0], prefix[1]);
    open("env:Body");
}

SoapWriter::~SoapWriter() = default;

void SoapWriter::open(const char* name) { xmlTextWriterStartElement(writer_->writer, x(name)); }

void SoapWriter::attribute(const char* name, const std::string& value)
{
    xmlTextWriterWriteAttribute(writer_->writer, x(name), x(value.c_str()));
}

void SoapWriter::text(const std::string& text)
{
    xmlTextWriterWriteString(writer_->writer, x(text.c_str()));
}

void SoapWriter::close() { xmlTextWriterEndElement(writer_->writer); }

void SoapWriter::element(const char* name, const std::string& text)
{
    xmlTextWriterWriteElement(writer_->writer, x(name), x(text.c_str()));
}

std::string SoapWriter::finish()
{
    xmlTextWriterEndDocument(writer_->writer);
    xmlTextWriterFlush(writer_->writer);
    return {reinterpret_cast<const char*>(xmlBufferContent(writer_->buffer)),
            std::size_t(xmlBufferLength(writer_->buffer))};
}

std::string faultEnvelope(const SoapFault& fault)
{
    static const char* const kCodes[] = {"env:Sender", "env:Receiver", "env:VersionMismatch",
                                         "env:MustUnderstand"};
    SoapWriter out;
    out.open("env:Fault");
    out.open("env:Code");
    out.element("env:Value", kCodes[int(fault.code())]);
    for (const auto& subcode : fault.subcodes()) {
        out.open("env:Subcode");
        out.element("env:Value", subcode);
    }
    for (std::size_t i = 0; i < fault.subcodes().size(); ++i) out.close();
    out.close();  // Code
    out.open("env:Reason");
    out.open("env:Text");
    out.attribute("xml:lang", "en");
    out.text(fault.what());
    out.close();
    out.close();
    out.close();  // Fault
    return out.finish();
}

}  // namespace onvif
