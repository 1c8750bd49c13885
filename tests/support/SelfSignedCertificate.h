#pragma once

#include <QSslCertificate>
#include <QSslKey>
#include <QString>
#include <QTemporaryDir>

// A certificate for one host name or IP address (its subject and subjectAltName), signed by
// its own key, made with the openssl command line into a temporary folder that goes with the
// object.
//
// Thread: any. The constructor blocks while openssl runs (a fraction of a second: the key is a
// P-256 one). Failure: isValid() is false and error() says why.
class SelfSignedCertificate
{
public:
    explicit SelfSignedCertificate(const QString& host);

    bool isValid() const { return !mCertificate.isNull() && !mKey.isNull(); }
    QString error() const { return mError; }
    QSslCertificate certificate() const { return mCertificate; }
    QSslKey key() const { return mKey; }
    // The certificate in PEM, for a client told to trust it.
    QString certificatePath() const { return mFolder.filePath(QStringLiteral("cert.pem")); }

private:
    bool generate(const QString& host);
    void load();

    QTemporaryDir mFolder;
    QSslCertificate mCertificate;
    QSslKey mKey;
    QString mError;
};
