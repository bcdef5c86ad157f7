#pragma once

#include <memory>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <string>

namespace vantor::test {

/// Gives an object back to OpenSSL with the function that its kind has for that.
template <auto kFree>
struct OpensslDeleter {
    template <typename Object>
    void operator()(Object* object) const {
        kFree(object);
    }
};

using OpensslKey = std::unique_ptr<EVP_PKEY, OpensslDeleter<EVP_PKEY_free>>;
using OpensslCertificate = std::unique_ptr<X509, OpensslDeleter<X509_free>>;
using OpensslExtension = std::unique_ptr<X509_EXTENSION, OpensslDeleter<X509_EXTENSION_free>>;
using OpensslStream = std::unique_ptr<BIO, OpensslDeleter<BIO_free_all>>;
using OpensslContext = std::unique_ptr<SSL_CTX, OpensslDeleter<SSL_CTX_free>>;
using OpensslConnection = std::unique_ptr<SSL, OpensslDeleter<SSL_free>>;

/// Unless `succeeded`, aborts the test program and says that it could not `task`, with OpenSSL's reasons.
void requireOpenssl(bool succeeded, const std::string& task);

} // namespace vantor::test
