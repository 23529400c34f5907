#pragma once

// A tiny HTTP server on 127.0.0.1 that answers every request with a scripted response, sent in
// pieces with pauses between them. It stands in for llama-server only where the real one
// cannot be made to misbehave: malformed event lines, odd status codes, non-JSON bodies.

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

class ScriptedHttpServer : public QObject
{
    Q_OBJECT

public:
    struct Request
    {
        QByteArray head; ///< request line and headers
        QByteArray body;
    };

    /// Listens on 127.0.0.1:`port`.
    bool listen(quint16 port) { return m_server.listen(QHostAddress::LocalHost, port); }

    /// The next response: status, then the body in `pieces`, `pauseMs` apart; the connection
    /// closes after the last piece.
    void respond(int status, QList<QByteArray> pieces, int pauseMs = 0)
    {
        m_status = status;
        m_pieces = std::move(pieces);
        m_pauseMs = pauseMs;
    }

    const QList<Request> &requests() const { return m_requests; }

    ScriptedHttpServer()
    {
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection())
                serve(socket);
        });
    }

private:
    void serve(QTcpSocket *socket)
    {
        auto *buffer = new QByteArray;
        connect(socket, &QTcpSocket::disconnected, socket, [socket, buffer] {
            delete buffer;
            socket->deleteLater();
        });
        connect(socket, &QTcpSocket::readyRead, socket, [this, socket, buffer] {
            buffer->append(socket->readAll());
            const qsizetype end = buffer->indexOf("\r\n\r\n");
            if (end < 0)
                return;
            const QByteArray head = buffer->left(end);
            qsizetype length = 0;
            for (const QByteArray &line : head.split('\n'))
                if (line.toLower().startsWith("content-length:"))
                    length = line.mid(15).trimmed().toLongLong();
            if (buffer->size() < end + 4 + length)
                return;
            m_requests.append({head, buffer->mid(end + 4, length)});
            buffer->clear();
            const QByteArray status = QByteArray::number(m_status);
            socket->write("HTTP/1.1 " + status + " Scripted\r\nContent-Type: text/event-stream\r\n"
                          "Connection: close\r\n\r\n");
            send(socket, 0);
        });
    }

    void send(QTcpSocket *socket, qsizetype index)
    {
        if (index >= m_pieces.size()) {
            socket->disconnectFromHost();
            return;
        }
        socket->write(m_pieces[index]);
        socket->flush();
        QTimer::singleShot(m_pauseMs, socket, [this, socket, index] { send(socket, index + 1); });
    }

    QTcpServer m_server;
    QList<Request> m_requests;
    int m_status = 200;
    QList<QByteArray> m_pieces;
    int m_pauseMs = 0;
};
