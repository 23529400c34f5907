#pragma once

// A small HTTP/1.1 server on 127.0.0.1 for model download tests and benchmarks. It streams
// files from disk in bounded chunks (so a gigabyte costs no memory) and can misbehave on
// purpose: redirects, error statuses, bodies cut short, connections dropped or left hanging.
// Header-only and without Q_OBJECT, so any test or benchmark can include it.

#include <QFile>
#include <QHash>
#include <QHostAddress>
#include <QStringList>
#include <QTcpServer>
#include <QTcpSocket>

#include <memory>

class ModelFileServer
{
public:
    enum class Ending {
        Complete, ///< the whole file, then a clean close
        CloseEarly, ///< a clean close after `sendBytes`
        Reset, ///< a connection reset after `sendBytes`
        Hang, ///< `sendBytes`, then silence with the connection left open
    };

    struct Route
    {
        int status = 200;
        QString file; ///< body source
        QByteArray location; ///< for redirects
        Ending ending = Ending::Complete;
        qint64 sendBytes = -1;
        bool declareLength = true; ///< send Content-Length (the full file's size)
    };

    ModelFileServer()
    {
        m_server.listen(QHostAddress::LocalHost);
        QObject::connect(&m_server, &QTcpServer::newConnection, &m_server, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection())
                accept(socket);
        });
    }

    quint16 port() const { return m_server.serverPort(); }
    /// "http://127.0.0.1:PORT/": the value for CORVANE_MODEL_MIRROR.
    QString base() const { return QStringLiteral("http://127.0.0.1:%1/").arg(port()); }

    void serveFile(const QString &path, const QString &file)
    {
        Route route;
        route.file = file;
        m_routes.insert(path, route);
    }
    void redirect(const QString &path, const QString &target, int status = 302)
    {
        Route route;
        route.status = status;
        route.location = target.toUtf8();
        m_routes.insert(path, route);
    }
    void cutShort(const QString &path, const QString &file, qint64 sendBytes, Ending ending, bool declareLength = true)
    {
        Route route;
        route.file = file;
        route.ending = ending;
        route.sendBytes = sendBytes;
        route.declareLength = declareLength;
        m_routes.insert(path, route);
    }

    /// Paths asked for, in order of arrival.
    const QStringList &requests() const { return m_requests; }

private:
    struct Connection
    {
        QTcpSocket *socket = nullptr;
        QByteArray head;
        bool answered = false;
        std::unique_ptr<QFile> body;
        qint64 remaining = 0;
        Ending ending = Ending::Complete;
    };

    static constexpr qint64 chunk = 256 * 1024;

    void accept(QTcpSocket *socket)
    {
        auto connection = std::make_shared<Connection>();
        connection->socket = socket;
        QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, connection] { readHead(connection); });
        QObject::connect(socket, &QTcpSocket::bytesWritten, socket, [connection] { pump(connection); });
        QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    }

    void readHead(const std::shared_ptr<Connection> &connection)
    {
        if (connection->answered) {
            connection->socket->readAll();
            return;
        }
        connection->head += connection->socket->readAll();
        if (!connection->head.contains("\r\n\r\n"))
            return;
        connection->answered = true;
        const QList<QByteArray> requestLine = connection->head.left(connection->head.indexOf("\r\n")).split(' ');
        const QString path = requestLine.size() > 1 ? QString::fromUtf8(requestLine.at(1)) : QString();
        m_requests.append(path);
        Route notFound;
        notFound.status = 404;
        answer(connection, m_routes.value(path, notFound));
    }

    void answer(const std::shared_ptr<Connection> &connection, const Route &route)
    {
        QTcpSocket *socket = connection->socket;
        QByteArray head = "HTTP/1.1 " + QByteArray::number(route.status) + " Status\r\nConnection: close\r\n";
        if (!route.location.isEmpty())
            head += "Location: " + route.location + "\r\n";
        if (route.file.isEmpty()) {
            const QByteArray text = route.status == 404 ? "Not found" : "";
            socket->write(head + "Content-Length: " + QByteArray::number(text.size()) + "\r\n\r\n" + text);
            socket->disconnectFromHost();
            return;
        }
        connection->body = std::make_unique<QFile>(route.file);
        connection->body->open(QIODevice::ReadOnly);
        const qint64 size = connection->body->size();
        if (route.declareLength)
            head += "Content-Length: " + QByteArray::number(size) + "\r\n";
        socket->write(head + "Content-Type: application/octet-stream\r\n\r\n");
        connection->remaining = route.sendBytes >= 0 ? qMin(route.sendBytes, size) : size;
        connection->ending = route.ending;
        pump(connection);
    }

    /// Keeps at most a few chunks queued in the socket, refilled as they go out.
    static void pump(const std::shared_ptr<Connection> &connection)
    {
        QTcpSocket *socket = connection->socket;
        if (!connection->body)
            return;
        while (connection->remaining > 0 && socket->bytesToWrite() < 4 * chunk) {
            const QByteArray data = connection->body->read(qMin(chunk, connection->remaining));
            if (data.isEmpty())
                break;
            connection->remaining -= data.size();
            socket->write(data);
        }
        if (connection->remaining > 0)
            return;
        connection->body.reset();
        switch (connection->ending) {
        case Ending::Complete:
        case Ending::CloseEarly:
            socket->disconnectFromHost();
            break;
        case Ending::Reset:
            socket->flush();
            socket->abort();
            break;
        case Ending::Hang:
            break;
        }
    }

    QTcpServer m_server;
    QHash<QString, Route> m_routes;
    QStringList m_requests;
};
