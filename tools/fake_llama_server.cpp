// Stands in for llama-server where the real one cannot be made to behave as a test needs: a
// reply of nothing but white space, or describing an image without a vision projector (none
// can be generated here). It takes the real server's command line and its key from the same
// environment variable, answers on 127.0.0.1 only with that bearer key, and speaks just enough
// of its API:
//   GET  /v1/models            readiness
//   POST /apply-template       {"prompt": all contents joined}
//   POST /tokenize             one token per four characters
//   POST /v1/chat/completions  streamed: the pieces of CORVANE_FAKE_REPLY, split at "|";
//                              (CORVANE_FAKE_PIECE_DELAY_MS apart, when set); otherwise
//                              CORVANE_FAKE_DESCRIPTION as the message content
// With CORVANE_FAKE_LOG set, each request is appended to that file as one JSON line
// {"path": ..., "body": ...}. `--list-devices` prints CORVANE_FAKE_DEVICES (lines as the real
// server writes them); with CORVANE_FAKE_FAIL_OFF_CPU set, it exits at once on any --device
// but "none", as the real one does when a GPU cannot load the model, and with
// CORVANE_FAKE_SLOW_OFF_CPU set it never gets ready there, as a model read from a slow disk.
#include <QCoreApplication>
#include <QFile>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <cstdio>
#include <memory>

namespace {

QString option(const QStringList &arguments, const QString &name)
{
    const qsizetype at = arguments.indexOf(name);
    return at >= 0 && at + 1 < arguments.size() ? arguments[at + 1] : QString();
}

QByteArray response(int status, const QByteArray &type, const QByteArray &body)
{
    return "HTTP/1.1 " + QByteArray::number(status) + (status == 200 ? " OK" : " Error") + "\r\nContent-Type: " + type
           + "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

QByteArray json(const QJsonObject &object)
{
    return response(200, "application/json", QJsonDocument(object).toJson(QJsonDocument::Compact));
}

/// The events of a streamed reply, one chunk each, the end marker last.
QList<QByteArray> streamEvents()
{
    QList<QByteArray> events;
    for (const QString &piece : qEnvironmentVariable("CORVANE_FAKE_REPLY", " |\n| ").split(QLatin1Char('|'))) {
        const QJsonObject event{{"choices", QJsonArray{QJsonObject{{"delta", QJsonObject{{"content", piece}}}}}}};
        events << "data: " + QJsonDocument(event).toJson(QJsonDocument::Compact) + "\n\n";
    }
    events << "data: [DONE]\n\n";
    return events;
}

QByteArray answer(const QByteArray &path, const QJsonObject &request)
{
    if (path == "/v1/models")
        return json({{"data", QJsonArray{QJsonObject{{"id", "fake"}}}}});
    if (path == "/apply-template") {
        QString prompt;
        for (const QJsonValue &message : request.value("messages").toArray())
            prompt += message.toObject().value("content").toString() + QLatin1Char('\n');
        return json({{"prompt", prompt}});
    }
    if (path == "/tokenize") {
        // Read once: taken from the request afresh for every token, a long text took seconds.
        const qsizetype characters = request.value("content").toString().size();
        QJsonArray tokens;
        for (qsizetype i = 0; i < characters; i += 4)
            tokens.append(1);
        return json({{"tokens", tokens}});
    }
    if (path == "/v1/chat/completions") {
        const QString text = qEnvironmentVariable("CORVANE_FAKE_DESCRIPTION", QStringLiteral("A small red boat."));
        return json({{"choices", QJsonArray{QJsonObject{{"message", QJsonObject{{"role", "assistant"}, {"content", text}}}}}}});
    }
    return response(404, "text/plain", "not found");
}

void log(const QByteArray &path, const QByteArray &body)
{
    const QString file = qEnvironmentVariable("CORVANE_FAKE_LOG");
    if (file.isEmpty())
        return;
    QFile out(file);
    if (out.open(QIODevice::Append))
        out.write(QJsonDocument(QJsonObject{{"path", QString::fromUtf8(path)}, {"body", QString::fromUtf8(body)}})
                      .toJson(QJsonDocument::Compact)
                  + '\n');
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.contains(QStringLiteral("--list-devices"))) {
        // The list the test asks for, as the real server prints it.
        std::fputs("Available devices:\n", stdout);
        std::fputs(qEnvironmentVariable("CORVANE_FAKE_DEVICES", QStringLiteral("  (none)\n")).toUtf8().constData(), stdout);
        return 0;
    }
    // A GPU that cannot take the model: the real server exits while loading.
    const QString device = option(arguments, QStringLiteral("--device"));
    if (qEnvironmentVariableIsSet("CORVANE_FAKE_FAIL_OFF_CPU") && device != QLatin1String("none"))
        return 1;
    if (qEnvironmentVariableIsSet("CORVANE_FAKE_SLOW_OFF_CPU") && device != QLatin1String("none"))
        return app.exec();
    const QByteArray key = "Bearer " + qgetenv("LLAMA_API_KEY");
    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHost, quint16(option(arguments, QStringLiteral("--port")).toUInt())))
        return 1;
    QObject::connect(&server, &QTcpServer::newConnection, [&] {
        while (QTcpSocket *socket = server.nextPendingConnection()) {
            QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            auto received = std::make_shared<QByteArray>();
            QObject::connect(socket, &QTcpSocket::readyRead, socket, [socket, key, received] {
                QByteArray &buffer = *received;
                buffer += socket->readAll();
                const qsizetype headEnd = buffer.indexOf("\r\n\r\n");
                if (headEnd < 0)
                    return;
                const QByteArray head = buffer.left(headEnd);
                qsizetype length = 0;
                for (const QByteArray &line : head.split('\n'))
                    if (line.toLower().startsWith("content-length:"))
                        length = line.mid(15).trimmed().toLongLong();
                if (buffer.size() < headEnd + 4 + length)
                    return;
                const QByteArray body = buffer.mid(headEnd + 4, length);
                const QByteArray path = head.split(' ').value(1);
                log(path, body);
                const bool authorised = (head + "\r\n").contains("\r\nAuthorization: " + key + "\r\n")
                                        || (head + "\r\n").contains("\r\nauthorization: " + key + "\r\n");
                const QJsonObject request = QJsonDocument::fromJson(body).object();
                const int delay = qEnvironmentVariableIntValue("CORVANE_FAKE_PIECE_DELAY_MS");
                if (!authorised) {
                    socket->write(response(401, "text/plain", "unauthorised"));
                } else if (path == "/v1/chat/completions" && request.value("stream").toBool()) {
                    const QList<QByteArray> events = streamEvents();
                    const QByteArray whole = response(200, "text/event-stream", events.join());
                    // The head, then each event in its own time.
                    socket->write(whole.left(whole.size() - events.join().size()));
                    for (qsizetype i = 0; i < events.size(); ++i) {
                        QTimer::singleShot(int(i) * delay, socket, [socket, event = events[i], last = i + 1 == events.size()] {
                            socket->write(event);
                            if (last)
                                socket->disconnectFromHost();
                        });
                    }
                    return;
                } else {
                    socket->write(answer(path, request));
                }
                socket->disconnectFromHost();
            });
        }
    });
    return app.exec();
}
