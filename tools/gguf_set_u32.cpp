// Sets an existing unsigned 32-bit metadata value of a GGUF model file in place.
//
// The generated test chat model declares a training context of 256 tokens, and llama-server
// caps its slot to that; raising "qwen35.context_length" lets tests use real context sizes.
//
// Usage: corvane-gguf-set-u32 FILE KEY VALUE

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

enum GgufType : uint32_t {
    U8 = 0, I8, U16, I16, U32, I32, F32, BOOL, STRING, ARRAY, U64, I64, F64,
};

template <typename T>
T readValue(std::fstream &file)
{
    T value{};
    if (!file.read(reinterpret_cast<char *>(&value), sizeof value))
        throw std::runtime_error("the file ends inside its metadata");
    return value;
}

std::string readString(std::fstream &file)
{
    const auto length = readValue<uint64_t>(file);
    if (length > (1u << 20))
        throw std::runtime_error("a metadata text is implausibly long");
    std::string text(length, '\0');
    if (!file.read(text.data(), static_cast<std::streamsize>(length)))
        throw std::runtime_error("the file ends inside a metadata text");
    return text;
}

size_t scalarSize(uint32_t type)
{
    switch (type) {
    case U8: case I8: case BOOL: return 1;
    case U16: case I16: return 2;
    case U32: case I32: case F32: return 4;
    case U64: case I64: case F64: return 8;
    default: throw std::runtime_error("unknown metadata type " + std::to_string(type));
    }
}

void skipValue(std::fstream &file, uint32_t type)
{
    if (type == STRING) {
        readString(file);
    } else if (type == ARRAY) {
        const auto elementType = readValue<uint32_t>(file);
        const auto count = readValue<uint64_t>(file);
        if (elementType == STRING || elementType == ARRAY) {
            for (uint64_t i = 0; i < count; ++i)
                skipValue(file, elementType);
        } else {
            file.seekg(static_cast<std::streamoff>(count * scalarSize(elementType)), std::ios::cur);
        }
    } else {
        file.seekg(static_cast<std::streamoff>(scalarSize(type)), std::ios::cur);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::cerr << "usage: " << argv[0] << " FILE KEY VALUE\n";
        return 2;
    }
    const std::string key = argv[2];
    const unsigned long value = std::strtoul(argv[3], nullptr, 10);
    try {
        std::fstream file(argv[1], std::ios::in | std::ios::out | std::ios::binary);
        if (!file)
            throw std::runtime_error("cannot open the file");
        if (readValue<uint32_t>(file) != 0x46554747u) // "GGUF", little-endian
            throw std::runtime_error("not a GGUF file");
        readValue<uint32_t>(file); // version
        readValue<uint64_t>(file); // tensor count
        const auto count = readValue<uint64_t>(file);
        for (uint64_t i = 0; i < count; ++i) {
            const std::string name = readString(file);
            const auto type = readValue<uint32_t>(file);
            if (name != key) {
                skipValue(file, type);
                continue;
            }
            if (type != U32)
                throw std::runtime_error(key + " is not an unsigned 32-bit value");
            const auto position = file.tellg();
            const uint32_t newValue = static_cast<uint32_t>(value);
            file.seekp(position);
            if (!file.write(reinterpret_cast<const char *>(&newValue), sizeof newValue).flush())
                throw std::runtime_error("cannot write the file");
            return 0;
        }
        throw std::runtime_error(key + " is not in the file");
    } catch (const std::exception &error) {
        std::cerr << argv[1] << ": " << error.what() << '\n';
        return 1;
    }
}
