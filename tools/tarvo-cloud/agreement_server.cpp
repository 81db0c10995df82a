// The agreement server: a PUT of the "AgreeTerms" document, signed with the deployment's key.
#include "deployment_servers.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <openssl/evp.h>

#include <climits>
#include <cstdio>
#include <memory>
#include <optional>
#include <set>

namespace tarvo {
namespace cloud {

namespace {

constexpr const char* kAgreementTarget = "/openapi/zephterms/";
constexpr const char* kContentType = "application/xml;charset=UTF-8";
constexpr const char* kXml = "application/xml";
// With a charset httplib never compresses the type, so a chunk goes out as built.
constexpr const char* kXmlAsIs = "application/xml; charset=UTF-8";
constexpr const char* kText = "text/plain";
constexpr const char* kDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

// Error numbers of the refusals, in the "err" element of a "fail" answer.
constexpr const char* kErrorMethod = "4011";
constexpr const char* kErrorTarget = "4012";
constexpr const char* kErrorHeader = "4013";
constexpr const char* kErrorContentType = "4014";
constexpr const char* kErrorDocument = "4015";
constexpr const char* kErrorSignature = "4016";

const char* SigningKey(const std::string& deployment) {
    return deployment == "production" ? "7c1e04a2-3b9d-4f16-8a52-e6d0c4b7f913"
                                      : "a4d92e60-15f7-4c3b-b8e1-2f06d7c93a58";
}

std::string XmlEscaped(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string RspAnswer(const std::string& stat, const std::string& code, const std::string& msg) {
    if (code.empty()) return std::string(kDeclaration) + "<rsp stat=\"" + stat + "\"/>\n";
    return std::string(kDeclaration) + "<rsp stat=\"" + stat + "\"><err code=\"" + XmlEscaped(code) +
           "\" msg=\"" + XmlEscaped(msg) + "\"/></rsp>\n";
}

std::string Sha1Hex(const std::string& text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_Digest(text.data(), text.size(), digest, &size, EVP_sha1(), nullptr) != 1) return "";
    std::string hex;
    char pair[3];
    for (unsigned int i = 0; i < size; ++i) {
        std::snprintf(pair, sizeof(pair), "%02x", digest[i]);
        hex += pair;
    }
    return hex;
}

struct Verdict {
    std::string code;  // empty: accepted
    std::string reason;
    AgreementUpload upload;
};

Verdict Refuse(Verdict verdict, const char* code, const std::string& reason) {
    verdict.code = code;
    verdict.reason = reason;
    return verdict;
}

struct DocFree {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
struct ParserFree {
    void operator()(xmlParserCtxt* parser) const { xmlFreeParserCtxt(parser); }
};
struct XmlCharFree {
    void operator()(xmlChar* text) const { xmlFree(text); }
};

std::string Name(const xmlNode* node) { return reinterpret_cast<const char*>(node->name); }

std::string Content(const xmlNode* node) {
    std::unique_ptr<xmlChar, XmlCharFree> text(xmlNodeGetContent(node));
    return text ? reinterpret_cast<const char*>(text.get()) : "";
}

std::vector<const xmlNode*> ElementChildren(const xmlNode* node) {
    std::vector<const xmlNode*> children;
    for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
        if (child->type == XML_ELEMENT_NODE) children.push_back(child);
    }
    return children;
}

// One "term" with "id", "agree" and "agreeVer", in this order; empty on success, else the reason.
std::string ReadTerm(const xmlNode* term, size_t number, AgreementTerm* out) {
    const std::string where = "term " + std::to_string(number);
    const std::vector<const xmlNode*> fields = ElementChildren(term);
    if (fields.size() != 3 || Name(fields[0]) != "id" || Name(fields[1]) != "agree" ||
        Name(fields[2]) != "agreeVer") {
        return where + " must hold exactly \"id\", \"agree\" and \"agreeVer\", in this order";
    }
    out->id = Content(fields[0]);
    out->agree = Content(fields[1]);
    out->version = Content(fields[2]);
    if (out->id.empty()) return where + " has an empty \"id\"";
    if (out->agree != "Y" && out->agree != "N") {
        return where + " (" + out->id + ") has \"agree\" '" + out->agree + "', not Y or N";
    }
    return "";
}

// The terms of an "AgreeTerms" document; empty on success, else the reason.
std::string ReadDocument(const std::string& body, std::vector<AgreementTerm>* terms) {
    if (body.empty()) return "the body is empty";
    if (body.size() > INT_MAX) return "the body is too large";
    std::unique_ptr<xmlParserCtxt, ParserFree> parser(xmlNewParserCtxt());
    if (!parser) return "the XML parser cannot start";
    std::unique_ptr<xmlDoc, DocFree> doc(
        xmlCtxtReadMemory(parser.get(), body.data(), static_cast<int>(body.size()), "agreement.xml", nullptr,
                          XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
    if (!doc) {
        const xmlError* error = xmlCtxtGetLastError(parser.get());
        std::string detail = error != nullptr && error->message != nullptr ? error->message : "unknown error";
        while (!detail.empty() && detail.back() == '\n') detail.pop_back();
        return "the body is no XML: " + detail;
    }
    const xmlNode* root = xmlDocGetRootElement(doc.get());
    if (root == nullptr || Name(root) != "AgreeTerms" || root->ns != nullptr) {
        return "the root element must be \"AgreeTerms\" without a namespace";
    }
    std::set<std::string> ids;
    for (const xmlNode* term : ElementChildren(root)) {
        if (Name(term) != "term") return "\"AgreeTerms\" holds an element \"" + Name(term) + "\"";
        AgreementTerm read;
        const std::string error = ReadTerm(term, terms->size() + 1, &read);
        if (!error.empty()) return error;
        if (!ids.insert(read.id).second) return "term " + read.id + " appears twice";
        terms->push_back(read);
    }
    return "";
}

// The one value of a header that must come exactly once and not empty.
bool ReadHeader(const httplib::Request& req, const char* name, std::string* value, std::string* reason) {
    const size_t count = req.get_header_value_count(name);
    if (count != 1) {
        *reason = count == 0
                      ? std::string("no \"") + name + "\" header"
                      : std::string("\"") + name + "\" header sent " + std::to_string(count) + " times";
        return false;
    }
    *value = req.get_header_value(name);
    if (value->empty()) *reason = std::string("empty \"") + name + "\" header";
    return !value->empty();
}

Verdict Check(const httplib::Request& req, const std::string& deployment) {
    Verdict verdict;
    verdict.upload.deployment = deployment;
    if (req.method != "PUT")
        return Refuse(verdict, kErrorMethod, "the agreement server takes PUT, not " + req.method);
    if (req.target != kAgreementTarget) {
        return Refuse(verdict, kErrorTarget, "no agreement resource at " + req.target);
    }
    std::string content_type;
    std::string signature;
    std::string reason;
    if (!ReadHeader(req, "Content-Type", &content_type, &reason) ||
        !ReadHeader(req, "DUID", &verdict.upload.duid, &reason) ||
        !ReadHeader(req, "Country", &verdict.upload.country, &reason) ||
        !ReadHeader(req, "ModelID", &verdict.upload.model, &reason) ||
        !ReadHeader(req, "Signature", &signature, &reason)) {
        return Refuse(verdict, kErrorHeader, reason);
    }
    if (content_type != kContentType) {
        return Refuse(verdict, kErrorContentType,
                      std::string("Content-Type must be ") + kContentType + ", not " + content_type);
    }
    const std::string error = ReadDocument(req.body, &verdict.upload.terms);
    if (!error.empty()) return Refuse(verdict, kErrorDocument, error);
    std::string letters;
    for (const auto& term : verdict.upload.terms) letters += term.agree;
    const std::string signed_text = verdict.upload.duid + "+" + verdict.upload.country + "+" +
                                    verdict.upload.model + "+++" + letters + "+" + SigningKey(deployment);
    const std::string expected = Sha1Hex(signed_text);
    if (signature != expected) {
        std::fprintf(stderr, "tarvo-cloud: %s expected signature %s of \"%s\"\n", deployment.c_str(),
                     expected.c_str(), signed_text.c_str());
        return Refuse(verdict, kErrorSignature, "the signature does not match the " + deployment + " key");
    }
    return verdict;
}

// The check's own answer; a good upload is recorded when `record` holds.
std::string Conclude(CloudContext& context, const Verdict& verdict, bool record) {
    const AgreementUpload& upload = verdict.upload;
    const std::string duid = upload.duid.empty() ? "(no DUID)" : upload.duid;
    if (!verdict.code.empty()) {
        std::fprintf(stderr, "tarvo-cloud: %s agreement of %s refused: %s\n", upload.deployment.c_str(),
                     duid.c_str(), verdict.reason.c_str());
        return RspAnswer("fail", verdict.code, verdict.reason);
    }
    if (record) context.agreements.Add(upload);
    std::fprintf(stderr, "tarvo-cloud: %s agreement of %s accepted: %zu terms%s\n", upload.deployment.c_str(),
                 duid.c_str(), upload.terms.size(), record ? "" : " (under a fault, not recorded)");
    return RspAnswer("ok", "", "");
}

void SendOneChunk(httplib::Response& res, std::string body, size_t bytes) {
    // Blanks after the root element keep the document well formed.
    if (body.size() < bytes) body.append(bytes - body.size(), ' ');
    auto shared = std::make_shared<const std::string>(std::move(body));
    res.set_chunked_content_provider(kXmlAsIs, [shared](size_t, httplib::DataSink& sink) {
        // One write is one chunk on the wire.
        if (!sink.write(shared->data(), shared->size())) return false;
        sink.done();
        return true;
    });
}

}  // namespace

void AnswerAgreement(CloudContext& context, const std::string& deployment, const httplib::Request& req,
                     httplib::Response& res) {
    const std::optional<Fault> fault =
        req.target == kAgreementTarget ? context.faults.Take("agreement") : std::nullopt;
    const Verdict verdict = Check(req, deployment);
    if (!fault || fault->kind == FaultKind::kDelay) {
        if (fault && !context.stop.WaitFor(std::chrono::milliseconds(fault->delay_ms))) {
            res.status = 503;
            res.set_content(RspAnswer("fail", "5030", "The cloud is shutting down"), kXml);
            return;
        }
        res.set_content(Conclude(context, verdict, true), kXml);
        return;
    }
    const std::string kind = FaultToJson(*fault)["kind"].asString();
    std::fprintf(stderr, "tarvo-cloud: %s agreement of %s answered by the fault %s, not recorded\n",
                 deployment.c_str(), verdict.upload.duid.c_str(), kind.c_str());
    switch (fault->kind) {
        case FaultKind::kDrop:
            DropConnection(req);
            return;
        case FaultKind::kStatError:
            res.set_content(RspAnswer("fail", fault->code.empty() ? "5000" : fault->code,
                                      fault->msg.empty() ? "Internal server error" : fault->msg),
                            kXml);
            return;
        case FaultKind::kBody:
            res.set_content(fault->body, kXml);
            return;
        case FaultKind::kNotXml:
            res.set_content("502 Bad Gateway: the upstream agreement service did not answer.\n", kText);
            return;
        case FaultKind::kWrongRoot:
            res.set_content(std::string(kDeclaration) + "<response stat=\"ok\"/>\n", kXml);
            return;
        case FaultKind::kOkWithErr:
            res.set_content(RspAnswer("ok", fault->code.empty() ? "0" : fault->code,
                                      fault->msg.empty() ? "Accepted with a warning" : fault->msg),
                            kXml);
            return;
        case FaultKind::kHttpStatus:
            res.status = fault->status;
            res.set_content(
                RspAnswer("fail", fault->code.empty() ? std::to_string(fault->status) : fault->code,
                          HttpStatusText(fault->status)),
                kXml);
            return;
        case FaultKind::kEmpty:
            res.set_content("", kXml);
            return;
        case FaultKind::kBigChunk:
            SendOneChunk(res, Conclude(context, verdict, false), fault->bytes);
            return;
        case FaultKind::kDelay:
        case FaultKind::kNotJson:
        case FaultKind::kUntrustedCert:
            // Delay is handled above, and the admin refuses the others for this path.
            res.set_content(Conclude(context, verdict, false), kXml);
            return;
    }
}

}  // namespace cloud
}  // namespace tarvo
