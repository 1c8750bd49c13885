// `cmake --install` of this build tree into a fresh prefix: a tree that works where it lies, with
// the programs running without LD_LIBRARY_PATH, the system files where systemd, D-Bus and bash
// look for them, and completion scripts that complete.

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

class TestInstall : public QObject
{
    Q_OBJECT
    QTemporaryDir mPrefix;

private slots:
    void initTestCase()
    {
        QVERIFY(mPrefix.isValid());
        QProcess install;
        install.start(QStringLiteral(CABIN_CMAKE_COMMAND),
                      {"--install", QStringLiteral(CABIN_BUILD_DIR), "--prefix", mPrefix.path()});
        QVERIFY(install.waitForFinished(120000));
        QVERIFY2(install.exitStatus() == QProcess::NormalExit && install.exitCode() == 0, install.readAllStandardError());
    }

    // Each row is a bash script run in the prefix with LD_LIBRARY_PATH unset, and all it must print.
    void installedTreeWorks_data()
    {
        QTest::addColumn<QString>("script");
        QTest::addColumn<QString>("out");
        const QString completions = QStringLiteral("share/bash-completion/completions/");
        QTest::newRow("the three programs and no test tool") << "ls bin" << "cabin-media-server\ncabin-mediactl\ncabin-play\n";
        QTest::newRow("system files where systemd, D-Bus, bash and readers look")
            << "find lib/systemd lib/sysusers.d share -type f | sort"
            << "lib/systemd/system/cabin-media-server.service\n"
               "lib/sysusers.d/cabin-media-server.conf\n"
               "share/bash-completion/completions/cabin-media-server\n"
               "share/bash-completion/completions/cabin-mediactl\n"
               "share/dbus-1/system.d/com.kelvramotors.MediaServer2.conf\n"
               "share/doc/cabin-media-server/README.md\n";
        QTest::newRow("every program and library finds its libraries")
            << "ldd bin/* lib/cabin-media-server/* | awk '/not found/'" << "";
        QTest::newRow("the unit starts the installed server")
            << "grep '^ExecStart=' lib/systemd/system/cabin-media-server.service | cut -d' ' -f1"
            << "ExecStart=" + mPrefix.path() + "/bin/cabin-media-server\n";
        QTest::newRow("the unit names the shipped settings file, which the server accepts")
            << "conf=$(grep -o -- '--config [^ ]*' lib/systemd/system/cabin-media-server.service | cut -d' ' -f2); "
               "echo $conf; bin/cabin-media-server --config $conf --list-config | grep '^gstreamer/volume'"
            << mPrefix.path() + "/etc/cabin-media-server/media.conf\ngstreamer/volume\treal\t1.0\t1.0\n";
        QTest::newRow("server runs") << "bin/cabin-media-server --version" << "cabin-media-server 0.1.0\n";
        QTest::newRow("client runs") << "bin/cabin-mediactl --help | sed -n 1p"
                                     << "Usage: cabin-mediactl [--bus ADDRESS] SUBCOMMAND [ARGS]\n";
        QTest::newRow("completion scripts parse")
            << "bash -n " + completions + "cabin-mediactl && bash -n " + completions + "cabin-media-server" << "";
        const QString complete = QStringLiteral(". %1%2 && COMP_WORDS=(%3); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); %4; "
                                                "echo \"${COMPREPLY[*]}\"");
        QTest::newRow("client subcommands complete")
            << complete.arg(completions, "cabin-mediactl", "cabin-mediactl st", "_cabin_mediactl") << "stop stop-file status\n";
        QTest::newRow("server keys after --set complete from the installed program")
            << complete.arg(completions, "cabin-media-server", "bin/cabin-media-server --set gstreamer/vo", "_cabin_media_server")
            << "gstreamer/volume=\n";
        QTest::newRow("--set=KEY completes as --set KEY")
            << complete.arg(completions, "cabin-media-server", "bin/cabin-media-server --set = gstreamer/vo", "_cabin_media_server")
            << "gstreamer/volume=\n";
    }
    void installedTreeWorks()
    {
        QFETCH(QString, script);
        QFETCH(QString, out);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove(QStringLiteral("LD_LIBRARY_PATH"));
        QProcess bash;
        bash.setProcessEnvironment(environment);
        bash.setWorkingDirectory(mPrefix.path());
        bash.start(QStringLiteral("bash"), {"-c", "set -o pipefail; " + script});
        QVERIFY(bash.waitForFinished(60000));
        const QByteArray err = bash.readAllStandardError();
        QVERIFY2(bash.exitStatus() == QProcess::NormalExit && bash.exitCode() == 0, err.constData());
        QCOMPARE(QString::fromUtf8(bash.readAllStandardOutput()), out);
    }
};

QTEST_GUILESS_MAIN(TestInstall)
#include "tst_install.moc"
