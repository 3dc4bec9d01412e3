// A SOAP 1.2 request read with libxml2 (no network, no DTD, no entities), and an answer
// written with it. Elements are found by local name: clients differ in their prefixes, and a
// few in their namespaces for the same thing.
#pragma once

#include <libxml/tree.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace onvif {

constexpr const char* kSoapNamespace = "http://www.w3.org/2003/05/soap-envelope";
constexpr const char* kDeviceNamespace = "http://www.onvif.org/ver10/device/wsdl";
constexpr const char* kSearchNamespace = "http://www.onvif.org/ver10/search/wsdl";
constexpr const char* kSchemaNamespace = "http://www.onvif.org/ver10/schema";

// WS-Security's UsernameToken, as the header carried it.
struct UsernameToken {
    std::string user;
    std::string password;
    bool digest = false;  // PasswordDigest; otherwise PasswordText
    std::string nonce;    // base64, as sent
    std::string created;
};

class SoapRequest {
public:
    // Throws SoapFault: not XML, a DTD, not a SOAP 1.2 envelope, an empty body, a header
    // block that must be understood and is not.
    explicit SoapRequest(const std::string& text);

    const std::string& operation() const { return operation_; }  // the body's first element
    const std::string& operationNamespace() const { return namespace_; }
    const xmlNode* operationElement() const { return operationElement_; }
    const std::optional<UsernameToken>& usernameToken() const { return token_; }

private:
    void readHeader(const xmlNode* header);

    std::unique_ptr<xmlDoc, void (*)(xmlDoc*)> doc_;
    const xmlNode* operationElement_ = nullptr;
    std::string operation_;
    std::string namespace_;
    std::optional<UsernameToken> token_;
};

// The child elements of `parent` with this local name, in document order.
std::vector<const xmlNode*> childrenNamed(const xmlNode* parent, const char* name);
const xmlNode* childNamed(const xmlNode* parent, const char* name);  // the first, or null
std::string textOf(const xmlNode* element);                          // "" for null
std::string attributeOf(const xmlNode* element, const char* name);

// An answer's envelope: elements opened and closed in order, text escaped by libxml2. The
// envelope declares the prefixes answers use: env, ter, tt, tds, tse, wsnt, tns1.
class SoapWriter {
public:
    SoapWriter();
    ~SoapWriter();
    void open(const char* name);
    void attribute(const char* name, const std::string& value);
    void text(const std::string& text);
    void close();
    void element(const char* name, const std::string& text);  // open, text, close
    std::string finish();  // closes what is open; the whole envelope

    SoapWriter(const SoapWriter&) = delete;
    SoapWriter& operator=(const SoapWriter&) = delete;

private:
    struct Writer;
    std::unique_ptr<Writer> writer_;
};

class SoapFault;
std::string faultEnvelope(const SoapFault& fault);

}  // namespace onvif
