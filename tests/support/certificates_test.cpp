#include "tests/support/certificates.h"

#include "tests/support/openssl_object.h"
#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <sys/stat.h>

namespace vantor::test {
namespace {

using TrustedCertificates = std::unique_ptr<X509_STORE, OpensslDeleter<X509_STORE_free>>;
using Verification = std::unique_ptr<X509_STORE_CTX, OpensslDeleter<X509_STORE_CTX_free>>;

OpensslCertificate readCertificate(const std::string& path) {
    const OpensslStream file(BIO_new_file(path.c_str(), "r"));
    return OpensslCertificate(PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr));
}

OpensslKey readKey(const std::string& path) {
    const OpensslStream file(BIO_new_file(path.c_str(), "r"));
    return OpensslKey(PEM_read_bio_PrivateKey(file.get(), nullptr, nullptr, nullptr));
}

/// How a client that trusts `authority_file` alone judges a TLS server's certificate: X509_V_OK, or a reason.
int verify(const std::string& authority_file, const std::string& certificate_file) {
    const OpensslCertificate certificate = readCertificate(certificate_file);
    const TrustedCertificates trusted(X509_STORE_new());
    const Verification verification(X509_STORE_CTX_new());
    EXPECT_EQ(X509_STORE_load_file(trusted.get(), authority_file.c_str()), 1);
    EXPECT_EQ(X509_STORE_CTX_init(verification.get(), trusted.get(), certificate.get(), nullptr), 1);
    EXPECT_EQ(X509_STORE_CTX_set_default(verification.get(), "ssl_server"), 1);
    X509_VERIFY_PARAM_set_flags(X509_STORE_CTX_get0_param(verification.get()), X509_V_FLAG_X509_STRICT);
    (void)X509_verify_cert(verification.get());
    return X509_STORE_CTX_get_error(verification.get());
}

bool isForHost(const std::string& certificate_file, const std::string& host) {
    return X509_check_host(readCertificate(certificate_file).get(), host.c_str(), 0, 0, nullptr) == 1;
}

bool isForAddress(const std::string& certificate_file, const std::string& address) {
    return X509_check_ip_asc(readCertificate(certificate_file).get(), address.c_str(), 0) == 1;
}

class CertificatesTest : public testing::Test {
protected:
    TemporaryDirectory m_directory;
    const CertificateAuthority m_authority{m_directory.path()};
};

TEST_F(CertificatesTest, WritesNamedFilesThatBelongTogether) {
    const CertificateFiles files = m_authority.issue("server");
    EXPECT_EQ(m_authority.certificateFile(), m_directory / "authority.crt");
    EXPECT_EQ(files.certificate, m_directory / "server.crt");
    EXPECT_EQ(files.key, m_directory / "server.key");
    EXPECT_EQ(m_directory.names(),
              (std::vector<std::string>{"authority.crt", "authority.key", "server.crt", "server.key"}));
    EXPECT_EQ(X509_check_private_key(readCertificate(files.certificate).get(), readKey(files.key).get()), 1);
}

TEST_F(CertificatesTest, KeysAreReadableByTheirOwnerAlone) {
    struct stat status = {};
    ASSERT_EQ(stat(m_authority.issue("server").key.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST_F(CertificatesTest, AGoodCertificateIsTrustedForTheLoopback) {
    const std::string file = m_authority.issue("server").certificate;
    EXPECT_EQ(verify(m_authority.certificateFile(), file), X509_V_OK);
    EXPECT_TRUE(isForHost(file, "localhost"));
    EXPECT_TRUE(isForAddress(file, "127.0.0.1"));
    EXPECT_FALSE(isForHost(file, "other.example"));
    EXPECT_FALSE(isForAddress(file, "127.0.0.2"));
}

TEST_F(CertificatesTest, AnExpiredCertificateIsWrongInThatAlone) {
    const std::string file = m_authority.issue("expired", CertificateAuthority::Flaw::Expired).certificate;
    EXPECT_EQ(verify(m_authority.certificateFile(), file), X509_V_ERR_CERT_HAS_EXPIRED);
    EXPECT_TRUE(isForHost(file, "localhost"));
}

TEST_F(CertificatesTest, ACertificateForAnotherHostIsWrongInThatAlone) {
    const std::string file = m_authority.issue("other", CertificateAuthority::Flaw::OtherHost).certificate;
    EXPECT_EQ(verify(m_authority.certificateFile(), file), X509_V_OK);
    EXPECT_TRUE(isForHost(file, "other.example"));
    EXPECT_FALSE(isForHost(file, "localhost"));
    EXPECT_FALSE(isForAddress(file, "127.0.0.1"));
}

TEST_F(CertificatesTest, AnotherAuthorityDoesNotVouchForIt) {
    const CertificateAuthority stranger(m_directory.path(), "stranger");
    EXPECT_EQ(stranger.certificateFile(), m_directory / "stranger.crt");
    EXPECT_NE(verify(stranger.certificateFile(), m_authority.issue("server").certificate), X509_V_OK);
}

TEST_F(CertificatesTest, AServersCertificateIsNoAuthority) {
    EXPECT_EQ(X509_check_ca(readCertificate(m_authority.issue("server").certificate).get()), 0);
    EXPECT_EQ(X509_check_ca(readCertificate(m_authority.certificateFile()).get()), 1);
}

TEST(CertificatesDeathTest, ADirectoryThatIsNotThereEndsTheTestProgram) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(CertificateAuthority("/nowhere/at/all"), "cannot create /nowhere/at/all/authority.crt");
}

} // namespace
} // namespace vantor::test
