#pragma once

#include <string>

namespace vantor::test {

/// The files of a certificate, PEM.
struct CertificateFiles {
    std::string certificate;
    std::string key;
};

/// A throw-away certificate authority. It writes its files into a directory that the caller owns and removes.
class CertificateAuthority {
public:
    /// What is wrong with a certificate that issue() makes.
    enum class Flaw {
        None,
        Expired,
        NotYetValid,
        OtherHost,           ///< for another one than stands in the common name
        NoAlternativeName,   ///< the host stands in the common name alone
        WildcardForAll,      ///< for "*"
        WildcardInTheMiddle, ///< for "l*t"
        WildcardBelow,       ///< for "*.localhost"
        ForClients,          ///< a client may show it, a server may not
        ShortKey,            ///< RSA of 1024 bits
        OldDigest,           ///< signed with SHA-1
        SelfSigned,
        IssuedByNoAuthority, ///< signed by a server's certificate, which the chain holds
    };

    /// Makes the authority's key and certificate, `NAME.crt` and `NAME.key` below `directory`.
    /// Aborts the test program with a message on failure.
    CertificateAuthority(std::string directory, const std::string& name = "authority");

    /// The authority's certificate: what a client must trust (SSL_CERT_FILE).
    const std::string& certificateFile() const { return m_files.certificate; }

    /// Makes a server certificate, valid for "localhost" and 127.0.0.1, signed by this authority.
    CertificateFiles issue(const std::string& name, Flaw flaw = Flaw::None) const;

private:
    std::string m_directory;
    CertificateFiles m_files;
};

} // namespace vantor::test
