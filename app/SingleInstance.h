#pragma once

#include <QList>
#include <QLockFile>
#include <QObject>
#include <QUrl>

#include <memory>

class QLocalServer;

// One running Velix per data directory. A second launch hands its files and links (and a wish
// to see the main window) to the running one and leaves.
class SingleInstance : public QObject
{
    Q_OBJECT

public:
    explicit SingleInstance(const QString &home, QObject *parent = nullptr);
    ~SingleInstance() override;

    // True when another instance took the request; this process should then exit 0. False when
    // this process is now the one instance and listens for later launches.
    bool forwardToRunning(const QList<QUrl> &urls);
    QString socketPath() const { return m_socketPath; }

signals:
    void openRequested(const QList<QUrl> &urls);
    void showRequested();

private:
    void readClient(class QLocalSocket *socket);

    QString m_socketPath;
    std::unique_ptr<QLockFile> m_lock;
    QLocalServer *m_server = nullptr;
};

// Turns the program's arguments into URLs: links stay links, paths become file URLs.
QList<QUrl> urlsFromArguments(const QStringList &arguments);
