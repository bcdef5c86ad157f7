#include "tests/support/certificates.h"

#include "tests/support/descriptor.h"
#include "tests/support/openssl_object.h"

#include <cstdint>
#include <fcntl.h>
#include <openssl/pem.h>
#include <openssl/rand.h>

namespace vantor::test {
namespace {

constexpr long kHourSeconds = 3600;
constexpr long kDaySeconds = 24 * kHourSeconds;

/// When a certificate is valid, in seconds from now.
struct Validity {
    long begin = -kHourSeconds;
    long end = kDaySeconds;
};

constexpr Validity kToday;
constexpr Validity kDayBeforeYesterday = {-2 * kDaySeconds, -kDaySeconds};
constexpr Validity kTomorrow = {kDaySeconds, 2 * kDaySeconds};

using Flaw = CertificateAuthority::Flaw;

Validity validityWith(Flaw flaw) {
    if (flaw == Flaw::Expired)
        return kDayBeforeYesterday;
    return flaw == Flaw::NotYetValid ? kTomorrow : kToday;
}

/// The hosts, as in OpenSSL's configuration files; "" for none.
std::string hostsWith(Flaw flaw) {
    switch (flaw) {
    case Flaw::OtherHost:
        return "DNS:other.example";
    case Flaw::NoAlternativeName:
        return "";
    case Flaw::WildcardForAll:
        return "DNS:*";
    case Flaw::WildcardInTheMiddle:
        return "DNS:l*t";
    case Flaw::WildcardBelow:
        return "DNS:*.localhost";
    default:
        return "DNS:localhost,IP:127.0.0.1";
    }
}

std::string commonNameWith(Flaw flaw, const std::string& name) {
    return flaw == Flaw::NoAlternativeName || flaw == Flaw::OtherHost ? "localhost" : "Test server " + name;
}

OpensslKey generateKey(Flaw flaw = Flaw::None) {
    constexpr size_t kShortBits = 1024;
    OpensslKey key(flaw == Flaw::ShortKey ? EVP_RSA_gen(kShortBits) : EVP_EC_gen("P-256"));
    requireOpenssl(key != nullptr, "generate a key");
    return key;
}

void setRandomSerialNumber(X509* certificate) {
    uint64_t number = 0;
    requireOpenssl(RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof number) == 1 &&
                       ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), number) == 1,
                   "number a certificate");
}

/// A certificate for `key`, which lacks its issuer, its extensions and its signature.
OpensslCertificate startCertificate(EVP_PKEY* key, const std::string& common_name, Validity validity) {
    OpensslCertificate certificate(X509_new());
    requireOpenssl(certificate && X509_set_version(certificate.get(), X509_VERSION_3) == 1 &&
                       X509_gmtime_adj(X509_getm_notBefore(certificate.get()), validity.begin) != nullptr &&
                       X509_gmtime_adj(X509_getm_notAfter(certificate.get()), validity.end) != nullptr &&
                       X509_set_pubkey(certificate.get(), key) == 1,
                   "make a certificate");

    const auto* name = reinterpret_cast<const unsigned char*>(common_name.c_str());
    requireOpenssl(X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_UTF8,
                                              name, -1, -1, 0) == 1,
                   "name a certificate '" + common_name + "'");
    setRandomSerialNumber(certificate.get());
    return certificate;
}

/// Adds an extension, `value` as in OpenSSL's configuration files.
void addExtension(X509* certificate, X509* issuer, int kind, const std::string& value) {
    X509V3_CTX context = {};
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    const OpensslExtension extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
    requireOpenssl(extension && X509_add_ext(certificate, extension.get(), -1) == 1,
                   "add '" + value + "' to a certificate");
}

void sign(X509* certificate, X509* issuer, EVP_PKEY* issuer_key, const EVP_MD* digest = EVP_sha256()) {
    requireOpenssl(X509_set_issuer_name(certificate, X509_get_subject_name(issuer)) == 1 &&
                       X509_sign(certificate, issuer_key, digest) > 0,
                   "sign a certificate");
}

/// A file that the owner alone can read, since it may hold a key.
OpensslStream createFile(const std::string& path) {
    constexpr mode_t kOwnerOnly = 0600;
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kOwnerOnly);
    OpensslStream stream(descriptor != -1 ? BIO_new_fd(descriptor, BIO_CLOSE) : nullptr);
    requireOpenssl(stream != nullptr, "create " + path);
    return stream;
}

OpensslStream openFile(const std::string& path) {
    OpensslStream stream(BIO_new_file(path.c_str(), "r"));
    requireOpenssl(stream != nullptr, "open " + path);
    return stream;
}

void writeFiles(const CertificateFiles& files, X509* certificate, EVP_PKEY* key) {
    requireOpenssl(PEM_write_bio_X509(createFile(files.certificate).get(), certificate) == 1,
                   "write " + files.certificate);
    requireOpenssl(PEM_write_bio_PrivateKey(createFile(files.key).get(), key, nullptr, nullptr, 0, nullptr,
                                            nullptr) == 1,
                   "write " + files.key);
}

OpensslCertificate readCertificate(const std::string& path) {
    OpensslCertificate certificate(PEM_read_bio_X509(openFile(path).get(), nullptr, nullptr, nullptr));
    requireOpenssl(certificate != nullptr, "read " + path);
    return certificate;
}

OpensslKey readKey(const std::string& path) {
    OpensslKey key(PEM_read_bio_PrivateKey(openFile(path).get(), nullptr, nullptr, nullptr));
    requireOpenssl(key != nullptr, "read " + path);
    return key;
}

/// Puts one certificate behind those of a chain.
void appendCertificate(const std::string& chain, X509* certificate) {
    const OpensslStream stream(BIO_new_file(chain.c_str(), "a"));
    requireOpenssl(stream && PEM_write_bio_X509(stream.get(), certificate) == 1, "append to " + chain);
}

CertificateFiles filesFor(const std::string& directory, const std::string& name) {
    const std::string stem = directory + "/" + name;
    return {stem + ".crt", stem + ".key"};
}

} // namespace

CertificateAuthority::CertificateAuthority(std::string directory, const std::string& name)
    : m_directory(std::move(directory)),
      m_files(filesFor(m_directory, name)) {
    const OpensslKey key = generateKey();
    const OpensslCertificate own = startCertificate(key.get(), "Test authority " + name, kToday);
    addExtension(own.get(), own.get(), NID_basic_constraints, "critical,CA:TRUE");
    addExtension(own.get(), own.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
    addExtension(own.get(), own.get(), NID_subject_key_identifier, "hash");
    sign(own.get(), own.get(), key.get());
    writeFiles(m_files, own.get(), key.get());
}

CertificateFiles CertificateAuthority::issue(const std::string& name, Flaw flaw) const {
    const CertificateFiles issuer_files =
        flaw == Flaw::IssuedByNoAuthority ? issue(name + "-issuer") : m_files;
    const OpensslCertificate issuer = readCertificate(issuer_files.certificate);
    const OpensslKey issuer_key = readKey(issuer_files.key);

    const OpensslKey key = generateKey(flaw);
    const OpensslCertificate own =
        startCertificate(key.get(), commonNameWith(flaw, name), validityWith(flaw));
    addExtension(own.get(), issuer.get(), NID_basic_constraints, "critical,CA:FALSE");
    addExtension(own.get(), issuer.get(), NID_key_usage, "critical,digitalSignature");
    addExtension(own.get(), issuer.get(), NID_ext_key_usage,
                 flaw == Flaw::ForClients ? "clientAuth" : "serverAuth");
    if (const std::string hosts = hostsWith(flaw); !hosts.empty())
        addExtension(own.get(), issuer.get(), NID_subject_alt_name, hosts);
    if (flaw == Flaw::SelfSigned) {
        sign(own.get(), own.get(), key.get());
    } else {
        addExtension(own.get(), issuer.get(), NID_authority_key_identifier,
                     flaw == Flaw::IssuedByNoAuthority ? "issuer:always" : "keyid:always");
        sign(own.get(), issuer.get(), issuer_key.get(), flaw == Flaw::OldDigest ? EVP_sha1() : EVP_sha256());
    }

    CertificateFiles files = filesFor(m_directory, name);
    writeFiles(files, own.get(), key.get());
    if (flaw == Flaw::IssuedByNoAuthority)
        appendCertificate(files.certificate, issuer.get());
    return files;
}

} // namespace vantor::test
