#include "tests/support/SelfSignedCertificate.h"

#include <QFile>
#include <QHostAddress>
#include <QProcess>

SelfSignedCertificate::SelfSignedCertificate(const QString& host)
{
    if (generate(host))
        load();
}

bool SelfSignedCertificate::generate(const QString& host)
{
    const QString altName = QHostAddress(host).isNull() ? QStringLiteral("DNS:") : QStringLiteral("IP:");
    QProcess openssl;
    openssl.setProcessChannelMode(QProcess::MergedChannels);
    openssl.start(QStringLiteral("openssl"),
                  {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
                   "-subj", "/CN=" + host, "-addext", "subjectAltName=" + altName + host,
                   "-keyout", mFolder.filePath(QStringLiteral("key.pem")), "-out", certificatePath()});
    if (!openssl.waitForFinished(30000) || openssl.exitStatus() != QProcess::NormalExit || openssl.exitCode() != 0) {
        mError = QStringLiteral("openssl req: %1 %2").arg(openssl.errorString(), QString::fromLocal8Bit(openssl.readAll()));
        return false;
    }
    return true;
}

void SelfSignedCertificate::load()
{
    QFile certificate(certificatePath());
    QFile key(mFolder.filePath(QStringLiteral("key.pem")));
    if (!certificate.open(QIODevice::ReadOnly) || !key.open(QIODevice::ReadOnly)) {
        mError = QStringLiteral("cannot read what openssl wrote in %1").arg(mFolder.path());
        return;
    }
    mCertificate = QSslCertificate(&certificate, QSsl::Pem);
    mKey = QSslKey(&key, QSsl::Ec, QSsl::Pem);
    if (!isValid())
        mError = QStringLiteral("Qt cannot load the certificate or key in %1").arg(mFolder.path());
}
