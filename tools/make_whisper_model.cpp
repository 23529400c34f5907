// corvane-make-whisper-model: writes a tiny Whisper model with random weights
// in whisper.cpp's legacy ggml file format.
//
// The result transcribes nothing meaningful, but the real whisper-cli loads it
// and runs the full pipeline (mel, encoder, language detection, decoding) in
// about a second, which is what the speech-to-text tests need without shipping
// a real model.
//
// Usage: corvane-make-whisper-model OUTPUT_FILE [--seed N]

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// n_vocab >= 51865 makes whisper.cpp treat the model as multilingual, so
// "-l auto" language detection works. Everything else is as small as the
// loader and the audio front end allow: n_audio_ctx must stay 1500 because
// 30 s of mel frames pass through a stride-2 convolution, and n_mels must
// match the mel filter bank below.
constexpr int32_t kVocab      = 51865;
constexpr int32_t kAudioCtx   = 1500;
constexpr int32_t kState      = 64;  // the loader requires audio and text state to match
constexpr int32_t kAudioHead  = 1;
constexpr int32_t kAudioLayer = 1;
constexpr int32_t kTextCtx    = 448;
constexpr int32_t kTextHead   = 1;
constexpr int32_t kTextLayer  = 1;
constexpr int32_t kMels       = 80;
constexpr int32_t kFtypeF16   = 1;   // keeps the 51865-row token embedding small

// Real vocab files carry the 50257 text tokens only; the loader appends the
// special tokens (end of text, languages, timestamps...) itself.
constexpr int32_t kTextTokens = 50257;

constexpr uint32_t kMagic    = 0x67676d6c;  // "ggml"
constexpr int      kSampleHz = 16000;
constexpr int      kFftSize  = 400;
constexpr int      kFftBins  = kFftSize / 2 + 1;

constexpr int32_t kTypeF32 = 0;
constexpr int32_t kTypeF16 = 1;

class Writer {
public:
    explicit Writer(std::ofstream &out) : out_(out) {}

    void bytes(const void *data, size_t size) {
        out_.write(static_cast<const char *>(data), static_cast<std::streamsize>(size));
        if (!out_) throw std::runtime_error("write failed");
    }

    // The loader reads raw host-order values; write little-endian explicitly
    // so the file is the same whatever machine produced it.
    void u32(uint32_t v) {
        const unsigned char b[4] = {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8),
                                    static_cast<unsigned char>(v >> 16), static_cast<unsigned char>(v >> 24)};
        bytes(b, sizeof b);
    }
    void i32(int32_t v) { u32(static_cast<uint32_t>(v)); }
    void u16(uint16_t v) {
        const unsigned char b[2] = {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8)};
        bytes(b, sizeof b);
    }
    void f32(float v) {
        uint32_t bits;
        std::memcpy(&bits, &v, sizeof bits);
        u32(bits);
    }

private:
    std::ofstream &out_;
};

// IEEE binary16 with round-to-nearest-even, subnormals included (weights with
// a 0.02 stdev regularly fall below the normal range).
uint16_t toHalf(float value) {
    uint32_t x;
    std::memcpy(&x, &value, sizeof x);
    const uint32_t sign = (x >> 16) & 0x8000u;
    const int32_t exp = static_cast<int32_t>((x >> 23) & 0xffu) - 127 + 15;
    uint32_t mant = x & 0x7fffffu;

    if (exp >= 31) return static_cast<uint16_t>(sign | 0x7c00u);  // overflow -> inf
    if (exp <= 0) {
        if (exp < -10) return static_cast<uint16_t>(sign);        // underflow -> 0
        mant |= 0x800000u;
        const int shift = 14 - exp;
        uint32_t half = mant >> shift;
        const uint32_t rest = mant & ((1u << shift) - 1);
        const uint32_t midpoint = 1u << (shift - 1);
        if (rest > midpoint || (rest == midpoint && (half & 1u))) ++half;
        return static_cast<uint16_t>(sign | half);
    }
    uint32_t half = (static_cast<uint32_t>(exp) << 10) | (mant >> 13);
    const uint32_t rest = mant & 0x1fffu;
    if (rest > 0x1000u || (rest == 0x1000u && (half & 1u))) ++half;  // may carry into exp: still correct
    return static_cast<uint16_t>(sign | half);
}

// std::normal_distribution differs between standard libraries; Box-Muller on
// mt19937_64 gives the same weights for a seed everywhere.
class Gaussian {
public:
    explicit Gaussian(uint64_t seed) : rng_(seed) {}

    double next() {
        if (hasSpare_) {
            hasSpare_ = false;
            return spare_;
        }
        const double u1 = (static_cast<double>(rng_() >> 11) + 1.0) * 0x1.0p-53;  // (0, 1]
        const double u2 = static_cast<double>(rng_() >> 11) * 0x1.0p-53;
        const double r = std::sqrt(-2.0 * std::log(u1));
        const double a = 2.0 * 3.14159265358979323846 * u2;
        spare_ = r * std::sin(a);
        hasSpare_ = true;
        return r * std::cos(a);
    }

private:
    std::mt19937_64 rng_;
    double spare_ = 0.0;
    bool hasSpare_ = false;
};

// Slaney-style mel scale, as used for Whisper's own filter bank.
double hzToMel(double hz) {
    const double minLogHz = 1000.0, minLogMel = 15.0, step = std::log(6.4) / 27.0;
    return hz < minLogHz ? hz * 3.0 / 200.0 : minLogMel + std::log(hz / minLogHz) / step;
}

double melToHz(double mel) {
    const double minLogHz = 1000.0, minLogMel = 15.0, step = std::log(6.4) / 27.0;
    return mel < minLogMel ? mel * 200.0 / 3.0 : minLogHz * std::exp(step * (mel - minLogMel));
}

// A real triangular filter bank rather than noise, so the log-mel input the
// encoder sees has sane magnitudes.
std::vector<float> melFilters() {
    std::vector<double> edges(kMels + 2);
    const double top = hzToMel(kSampleHz / 2.0);
    for (int i = 0; i < kMels + 2; ++i) edges[i] = melToHz(top * i / (kMels + 1));

    std::vector<float> filters(static_cast<size_t>(kMels) * kFftBins);
    for (int m = 0; m < kMels; ++m) {
        const double norm = 2.0 / (edges[m + 2] - edges[m]);
        for (int k = 0; k < kFftBins; ++k) {
            const double hz = static_cast<double>(k) * kSampleHz / kFftSize;
            const double rise = (hz - edges[m]) / (edges[m + 1] - edges[m]);
            const double fall = (edges[m + 2] - hz) / (edges[m + 2] - edges[m + 1]);
            filters[static_cast<size_t>(m) * kFftBins + k] =
                static_cast<float>(std::max(0.0, std::min(rise, fall)) * norm);
        }
    }
    return filters;
}

// Printable ASCII stays itself, other bytes get a "<0xNN>" name, and the rest
// are made-up syllable words with a leading space. Keeping every token ASCII
// means whatever the random decoder emits is valid UTF-8 text.
std::string tokenText(int id) {
    if (id < 256) {
        if (id >= 0x20 && id < 0x7f) return std::string(1, static_cast<char>(id));
        char buf[8];
        std::snprintf(buf, sizeof buf, "<0x%02X>", id);
        return buf;
    }
    static const char consonants[] = "bdfgklmnprstvz";
    static const char vowels[] = "aeiou";
    constexpr int kSyllables = 14 * 5;
    std::string word = " ";
    for (int n = id - 256;; n = n / kSyllables - 1) {  // bijective base, so words never repeat
        const int s = n % kSyllables;
        word += consonants[s / 5];
        word += vowels[s % 5];
        if (n < kSyllables) break;
    }
    return word;
}

struct Tensor {
    std::string name;
    std::vector<int32_t> ne;  // ggml order: ne[0] is the contiguous dimension
    enum Fill { Random, Ones, Zeros } fill = Random;
};

void writeTensor(Writer &w, Gaussian &gauss, const Tensor &t) {
    // Mirrors the loader's expectations: big matrices come in the model's
    // ftype, vectors, biases and positional embeddings are always F32.
    const bool isMatrix = t.ne.size() >= 2 && t.name.size() > 7 &&
                          t.name.compare(t.name.size() - 7, 7, ".weight") == 0;
    const int32_t ttype = isMatrix ? kTypeF16 : kTypeF32;

    w.i32(static_cast<int32_t>(t.ne.size()));
    w.i32(static_cast<int32_t>(t.name.size()));
    w.i32(ttype);
    size_t count = 1;
    for (int32_t d : t.ne) {
        w.i32(d);
        count *= static_cast<size_t>(d);
    }
    w.bytes(t.name.data(), t.name.size());

    std::vector<unsigned char> data(count * (ttype == kTypeF16 ? 2 : 4));
    for (size_t i = 0; i < count; ++i) {
        float v = 0.0f;
        switch (t.fill) {
        case Tensor::Random: v = static_cast<float>(0.02 * gauss.next()); break;
        case Tensor::Ones:   v = static_cast<float>(1.0 + 0.02 * gauss.next()); break;
        case Tensor::Zeros:  v = 0.0f; break;
        }
        if (ttype == kTypeF16) {
            const uint16_t h = toHalf(v);
            data[2 * i] = static_cast<unsigned char>(h);
            data[2 * i + 1] = static_cast<unsigned char>(h >> 8);
        } else {
            uint32_t bits;
            std::memcpy(&bits, &v, sizeof bits);
            for (int b = 0; b < 4; ++b) data[4 * i + b] = static_cast<unsigned char>(bits >> (8 * b));
        }
    }
    w.bytes(data.data(), data.size());
}

std::vector<Tensor> modelTensors() {
    const int32_t n = kState;
    std::vector<Tensor> ts;
    auto add = [&](std::string name, std::vector<int32_t> ne, Tensor::Fill fill = Tensor::Random) {
        ts.push_back({std::move(name), std::move(ne), fill});
    };
    auto norm = [&](const std::string &prefix) {
        add(prefix + ".weight", {n}, Tensor::Ones);
        add(prefix + ".bias", {n}, Tensor::Zeros);
    };
    auto attention = [&](const std::string &prefix) {
        add(prefix + ".query.weight", {n, n});
        add(prefix + ".query.bias", {n});
        add(prefix + ".key.weight", {n, n});  // Whisper's key projection has no bias
        add(prefix + ".value.weight", {n, n});
        add(prefix + ".value.bias", {n});
        add(prefix + ".out.weight", {n, n});
        add(prefix + ".out.bias", {n});
    };
    auto mlp = [&](const std::string &prefix) {
        norm(prefix + ".mlp_ln");
        add(prefix + ".mlp.0.weight", {n, 4 * n});
        add(prefix + ".mlp.0.bias", {4 * n});
        add(prefix + ".mlp.2.weight", {4 * n, n});
        add(prefix + ".mlp.2.bias", {n});
    };

    add("encoder.positional_embedding", {n, kAudioCtx});
    add("encoder.conv1.weight", {3, kMels, n});
    add("encoder.conv1.bias", {1, n});  // the loader wants conv biases as 2-D
    add("encoder.conv2.weight", {3, n, n});
    add("encoder.conv2.bias", {1, n});
    for (int i = 0; i < kAudioLayer; ++i) {
        const std::string p = "encoder.blocks." + std::to_string(i);
        norm(p + ".attn_ln");
        attention(p + ".attn");
        mlp(p);
    }
    norm("encoder.ln_post");

    add("decoder.positional_embedding", {n, kTextCtx});
    add("decoder.token_embedding.weight", {n, kVocab});
    for (int i = 0; i < kTextLayer; ++i) {
        const std::string p = "decoder.blocks." + std::to_string(i);
        norm(p + ".attn_ln");
        attention(p + ".attn");
        norm(p + ".cross_attn_ln");
        attention(p + ".cross_attn");
        mlp(p);
    }
    norm("decoder.ln");
    return ts;
}

void writeModel(std::ofstream &out, uint64_t seed) {
    Writer w(out);

    w.u32(kMagic);
    for (int32_t v : {kVocab, kAudioCtx, kState, kAudioHead, kAudioLayer,
                      kTextCtx, kState, kTextHead, kTextLayer, kMels, kFtypeF16}) {
        w.i32(v);
    }

    w.i32(kMels);
    w.i32(kFftBins);
    for (float v : melFilters()) w.f32(v);

    w.i32(kTextTokens);
    for (int id = 0; id < kTextTokens; ++id) {
        const std::string text = tokenText(id);
        w.u32(static_cast<uint32_t>(text.size()));
        w.bytes(text.data(), text.size());
    }

    Gaussian gauss(seed);
    for (const Tensor &t : modelTensors()) writeTensor(w, gauss, t);
}

int usage(std::ostream &os, int rc) {
    os << "usage: corvane-make-whisper-model OUTPUT_FILE [--seed N]\n";
    return rc;
}

}  // namespace

int main(int argc, char **argv) {
    std::string output;
    uint64_t seed = 1;

    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") return usage(std::cout, 0);
        if (arg == "--seed") {
            if (++i >= argc) return usage(std::cerr, 2);
            const std::string value = argv[i];
            size_t used = 0;
            try {
                seed = std::stoull(value, &used, 10);
            } catch (const std::exception &) {
                used = 0;
            }
            if (used == 0 || used != value.size() || value[0] == '-') {
                std::cerr << "invalid seed: " << value << "\n";
                return 2;
            }
        } else if (output.empty() && !arg.empty() && arg[0] != '-') {
            output = arg;
        } else {
            return usage(std::cerr, 2);
        }
    }
    if (output.empty()) return usage(std::cerr, 2);

    // Write next to the target and rename, so a reader never sees a half
    // written model.
    const std::filesystem::path target(output);
    const std::filesystem::path temp = target.string() + ".part";
    try {
        {
            std::ofstream out(temp, std::ios::binary | std::ios::trunc);
            if (!out) throw std::runtime_error("cannot create " + temp.string());
            writeModel(out, seed);
            out.close();
            if (!out) throw std::runtime_error("write failed");
        }
        std::filesystem::rename(temp, target);
    } catch (const std::exception &e) {
        std::error_code ignored;
        std::filesystem::remove(temp, ignored);
        std::cerr << "corvane-make-whisper-model: " << output << ": " << e.what() << "\n";
        return 1;
    }
    return 0;
}
