// How long unlocking takes: one opening of the vault key by password at the real 600,000
// PBKDF2 rounds, as the user waits for it after pressing Unlock. Prints each run and the
// median.
//
// Usage: bench_vault [runs]   (default 7)
#include "vault/vault.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <algorithm>
#include <cstdio>
#include <vector>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const int runs = argc > 1 ? std::max(1, QByteArray(argv[1]).toInt()) : 7;

    const Vault::NewVault vault = Vault::create(QStringLiteral("correct horse battery staple"));
    std::vector<double> milliseconds;
    for (int i = 0; i < runs; ++i) {
        QElapsedTimer timer;
        timer.start();
        const std::optional<VaultKey> key =
            Vault::openWithPassword(QStringLiteral("correct horse battery staple"), vault.record);
        milliseconds.push_back(double(timer.nsecsElapsed()) / 1e6);
        if (!key || !(*key == vault.key)) {
            std::fprintf(stderr, "the vault did not open\n");
            return 1;
        }
        std::printf("open(password:) at %lld rounds: %.1f ms\n",
                    static_cast<long long>(vault.record.rounds), milliseconds.back());
    }
    std::sort(milliseconds.begin(), milliseconds.end());
    std::printf("median of %d: %.1f ms\n", runs, milliseconds[milliseconds.size() / 2]);
    return 0;
}
