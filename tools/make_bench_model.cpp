// Writes a random-weight chat model of about a billion parameters for measuring reply speed on
// a CPU or a GPU: llama's architecture (16 query and 8 key-value heads of 128, a feed-forward
// of 8192) in 8-bit blocks, with the small vocabulary and tokenizer of the generated test
// model, so that llama-server reads and runs it like any chat model. What it says is noise;
// how fast it says it is what a real model of this size would show.
//
// Usage: corvane-make-bench-model TEST_MODEL OUTPUT [LAYERS]   (default 17 layers: 1.03e9)

#include "ggml.h"
#include "gguf.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int64_t s_embedding = 2048;
constexpr int64_t s_heads = 16;
constexpr int64_t s_kvHeads = 8;
constexpr int64_t s_headSize = s_embedding / s_heads;
constexpr int64_t s_feedForward = 8192;

uint64_t s_state = 0x9e3779b97f4a7c15ull;
uint64_t nextRandom()
{
    s_state ^= s_state << 13;
    s_state ^= s_state >> 7;
    s_state ^= s_state << 17;
    return s_state;
}

struct Q8Block
{
    ggml_fp16_t scale;
    int8_t values[32];
};
static_assert(sizeof(Q8Block) == 34);

// Weights of about 0.02 standard deviation, as trained models of this width have.
void fillRandom(ggml_tensor *tensor)
{
    auto *blocks = static_cast<Q8Block *>(tensor->data);
    const size_t count = ggml_nbytes(tensor) / sizeof(Q8Block);
    const ggml_fp16_t scale = ggml_fp32_to_fp16(0.02f / 73.0f);
    for (size_t i = 0; i < count; ++i) {
        blocks[i].scale = scale;
        for (int j = 0; j < 32; j += 8) {
            const uint64_t r = nextRandom();
            for (int k = 0; k < 8; ++k)
                blocks[i].values[j + k] = static_cast<int8_t>(static_cast<int>((r >> (8 * k)) & 0xff) % 255 - 127);
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s TEST_MODEL OUTPUT [LAYERS]\n", argv[0]);
        return 2;
    }
    const int layers = argc > 3 ? std::atoi(argv[3]) : 17;

    ggml_context *sourceTensors = nullptr;
    gguf_context *source = gguf_init_from_file(argv[1], {true, &sourceTensors});
    if (!source) {
        std::fprintf(stderr, "cannot read %s\n", argv[1]);
        return 1;
    }
    const int64_t vocabulary = ggml_get_tensor(sourceTensors, "token_embd.weight")->ne[1];

    // The tokenizer as it is; the architecture's own keys replaced.
    gguf_context *model = gguf_init_empty();
    gguf_set_kv(model, source);
    const std::string oldArch = gguf_get_val_str(source, gguf_find_key(source, "general.architecture"));
    for (int64_t i = gguf_get_n_kv(model) - 1; i >= 0; --i) {
        const std::string key = gguf_get_key(model, i);
        if (key.starts_with(oldArch + ".") || key.starts_with("xielu."))
            gguf_remove_key(model, key.c_str());
    }
    gguf_set_val_str(model, "general.architecture", "llama");
    gguf_set_val_str(model, "general.name", "Corvane benchmark model");
    gguf_set_val_u32(model, "llama.vocab_size", uint32_t(vocabulary));
    gguf_set_val_u32(model, "llama.context_length", 65536);
    gguf_set_val_u32(model, "llama.embedding_length", uint32_t(s_embedding));
    gguf_set_val_u32(model, "llama.block_count", uint32_t(layers));
    gguf_set_val_u32(model, "llama.feed_forward_length", uint32_t(s_feedForward));
    gguf_set_val_u32(model, "llama.attention.head_count", uint32_t(s_heads));
    gguf_set_val_u32(model, "llama.attention.head_count_kv", uint32_t(s_kvHeads));
    gguf_set_val_u32(model, "llama.rope.dimension_count", uint32_t(s_headSize));
    gguf_set_val_f32(model, "llama.attention.layer_norm_rms_epsilon", 1e-6f);
    gguf_set_val_f32(model, "llama.rope.freq_base", 10000.0f);

    struct Shape
    {
        std::string name;
        int64_t columns, rows;
    };
    std::vector<Shape> matrices{{"token_embd.weight", s_embedding, vocabulary}, {"output.weight", s_embedding, vocabulary}};
    std::vector<Shape> norms{{"output_norm.weight", s_embedding, 1}};
    for (int l = 0; l < layers; ++l) {
        const std::string b = "blk." + std::to_string(l) + ".";
        matrices.push_back({b + "attn_q.weight", s_embedding, s_embedding});
        matrices.push_back({b + "attn_k.weight", s_embedding, s_kvHeads * s_headSize});
        matrices.push_back({b + "attn_v.weight", s_embedding, s_kvHeads * s_headSize});
        matrices.push_back({b + "attn_output.weight", s_embedding, s_embedding});
        matrices.push_back({b + "ffn_gate.weight", s_embedding, s_feedForward});
        matrices.push_back({b + "ffn_up.weight", s_embedding, s_feedForward});
        matrices.push_back({b + "ffn_down.weight", s_feedForward, s_embedding});
        norms.push_back({b + "attn_norm.weight", s_embedding, 1});
        norms.push_back({b + "ffn_norm.weight", s_embedding, 1});
    }
    size_t bytes = 0;
    int64_t parameters = 0;
    for (const Shape &m : matrices) {
        bytes += ggml_row_size(GGML_TYPE_Q8_0, m.columns) * m.rows;
        parameters += m.columns * m.rows;
    }
    for (const Shape &n : norms) {
        bytes += n.columns * sizeof(float);
        parameters += n.columns;
    }
    const size_t tensorCount = matrices.size() + norms.size();
    ggml_context *tensors = ggml_init({bytes + tensorCount * ggml_tensor_overhead() + 1024 * 1024, nullptr, false});
    for (const Shape &m : matrices) {
        ggml_tensor *t = ggml_new_tensor_2d(tensors, GGML_TYPE_Q8_0, m.columns, m.rows);
        ggml_set_name(t, m.name.c_str());
        fillRandom(t);
        gguf_add_tensor(model, t);
    }
    for (const Shape &n : norms) {
        ggml_tensor *t = ggml_new_tensor_1d(tensors, GGML_TYPE_F32, n.columns);
        ggml_set_name(t, n.name.c_str());
        auto *values = static_cast<float *>(t->data);
        std::fill(values, values + n.columns, 1.0f);
        gguf_add_tensor(model, t);
    }
    if (!gguf_write_to_file(model, argv[2], false)) {
        std::fprintf(stderr, "cannot write %s\n", argv[2]);
        return 1;
    }
    std::printf("%s: %.3g parameters, %d layers, %.2f GB\n", argv[2], double(parameters), layers, bytes / 1e9);
    gguf_free(model);
    gguf_free(source);
    ggml_free(tensors);
    ggml_free(sourceTensors);
    return 0;
}
