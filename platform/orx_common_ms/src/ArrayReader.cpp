#include "ArrayReader.h"

#include "Texts.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

#include <zlib.h>

namespace orx {

namespace {

constexpr uchar kSpace = 0x40;
constexpr uchar kPadding = 0x41;
constexpr uchar kWrong = 0x80;

constexpr std::array<uchar, 256> makeValues() {
    std::array<uchar, 256> values{};
    values.fill(kWrong);
    constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (size_t i = 0; i < kAlphabet.size(); ++i)
        values[uchar(kAlphabet[i])] = uchar(i);
    for (const char space : {' ', '\t', '\r', '\n'})
        values[uchar(space)] = kSpace;
    values[uchar('=')] = kPadding;
    return values;
}

constexpr std::array<uchar, 256> kValues = makeValues();

static_assert(std::endian::native == std::endian::little);

template <typename Bits>
Bits reversed(Bits bits) {
    if constexpr (sizeof(Bits) == 4)
        return __builtin_bswap32(bits);
    else
        return __builtin_bswap64(bits);
}

struct Sums {
    qint64 count = 0;
    double sum = 0;
    double lowest = std::numeric_limits<double>::infinity();
    double highest = -std::numeric_limits<double>::infinity();

    void add(double value) {
        ++count;
        if (!std::isfinite(value))
            return;
        sum += value;
        lowest = std::min(lowest, value);
        highest = std::max(highest, value);
    }
    ArrayReader::Figures figures() const {
        ArrayReader::Figures figures{count, sum, {}};
        if (lowest <= highest)
            figures.range = ValueRange{lowest, highest};
        return figures;
    }
};

} // namespace

struct ArrayReader::Private {
    ArrayFormat format;
    QString problem;
    // base64
    quint32 bits = 0;
    int digits = 0;
    bool isPadded = false;
    std::array<char, 4096> decoded;
    size_t decodedSize = 0;
    // zlib
    z_stream inflater{};
    bool hasInflater = false;
    bool isInflated = false;
    bool hasPacked = false;
    std::array<char, 16384> inflated;
    // numbers
    std::array<char, 8> part;
    size_t partSize = 0;
    int channel = 0;
    std::array<Sums, 2> sums;
    std::array<Figures, 2> figures;

    void fail(const QString& why) {
        if (problem.isEmpty())
            problem = why;
    }
    void digit(uchar value);
    void flushDecoded();
    void endText();
    void packed(std::string_view piece);
    void numbers(std::string_view piece);
    void wholeNumbers(std::string_view piece);
    template <typename Value, typename Bits>
    void add(std::string_view piece);
};

ArrayReader::ArrayReader() : d(std::make_unique<Private>()) {}

ArrayReader::~ArrayReader() {
    if (d->hasInflater)
        inflateEnd(&d->inflater);
}

void ArrayReader::begin(const ArrayFormat& format) {
    d->format = format;
    d->problem.clear();
    d->bits = 0;
    d->digits = 0;
    d->isPadded = false;
    d->decodedSize = 0;
    d->isInflated = false;
    d->hasPacked = false;
    d->partSize = 0;
    d->channel = 0;
    d->sums = {};
    if (format.number == ArrayFormat::Number::Unknown)
        d->fail(msText("its numbers are of a type that is not known."));
    if (format.compression == ArrayFormat::Compression::Unknown)
        d->fail(msText("it is compressed in a way that is not known."));
    if (format.compression != ArrayFormat::Compression::Zlib)
        return;
    if (!d->hasInflater)
        d->hasInflater = inflateInit(&d->inflater) == Z_OK;
    else
        inflateReset(&d->inflater);
    if (!d->hasInflater)
        d->fail(msText("there is not enough memory to unpack it."));
}

void ArrayReader::text(std::string_view piece) {
    if (!d->problem.isEmpty())
        return;
    const char* at = piece.data();
    const char* const end = at + piece.size();
    while (at != end) {
        // Whole groups of four digits are most of the text.
        while (d->digits == 0 && !d->isPadded && end - at >= 4 && d->decodedSize + 3 <= d->decoded.size()) {
            const uchar a = kValues[uchar(at[0])];
            const uchar b = kValues[uchar(at[1])];
            const uchar c = kValues[uchar(at[2])];
            const uchar e = kValues[uchar(at[3])];
            if ((a | b | c | e) >= kSpace)
                break;
            const quint32 group = quint32(a) << 18 | quint32(b) << 12 | quint32(c) << 6 | e;
            char* to = d->decoded.data() + d->decodedSize;
            to[0] = char(group >> 16);
            to[1] = char(group >> 8);
            to[2] = char(group);
            d->decodedSize += 3;
            at += 4;
        }
        if (d->decodedSize + 3 > d->decoded.size())
            d->flushDecoded();
        if (at != end)
            d->digit(kValues[uchar(*at++)]);
    }
}

void ArrayReader::Private::digit(uchar value) {
    if (value == kSpace)
        return;
    if (value == kPadding) {
        isPadded = true;
        return;
    }
    if (value == kWrong || isPadded)
        return fail(msText("its base64 text is damaged."));
    bits = bits << 6 | value;
    if (++digits < 4)
        return;
    for (const int shift : {16, 8, 0})
        decoded[decodedSize++] = char(bits >> shift);
    bits = 0;
    digits = 0;
}

void ArrayReader::Private::endText() {
    if (digits == 1)
        fail(msText("its base64 text is damaged."));
    if (digits >= 2)
        decoded[decodedSize++] = char(digits == 2 ? bits >> 4 : bits >> 10);
    if (digits == 3)
        decoded[decodedSize++] = char(bits >> 2);
    digits = 0;
    flushDecoded();
}

void ArrayReader::Private::flushDecoded() {
    const std::string_view piece(decoded.data(), decodedSize);
    decodedSize = 0;
    packed(piece);
}

void ArrayReader::bytes(std::string_view piece) {
    d->packed(piece);
}

void ArrayReader::Private::packed(std::string_view piece) {
    if (piece.empty() || !problem.isEmpty())
        return;
    if (format.compression == ArrayFormat::Compression::None)
        return numbers(piece);
    hasPacked = true;
    // zlib does not change its input, but its interface says so only when it is built for it.
    inflater.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(piece.data()));
    inflater.avail_in = uInt(piece.size());
    while (inflater.avail_in > 0 && !isInflated && problem.isEmpty()) {
        inflater.next_out = reinterpret_cast<Bytef*>(inflated.data());
        inflater.avail_out = uInt(inflated.size());
        const int outcome = inflate(&inflater, Z_NO_FLUSH);
        isInflated = outcome == Z_STREAM_END;
        if (outcome != Z_OK && outcome != Z_STREAM_END)
            return fail(msText("its compressed data is damaged."));
        numbers({inflated.data(), inflated.size() - inflater.avail_out});
    }
}

void ArrayReader::Private::numbers(std::string_view piece) {
    const size_t size = size_t(format.bytesPerNumber());
    if (partSize > 0) {
        const size_t missing = std::min(size - partSize, piece.size());
        std::copy_n(piece.data(), missing, part.data() + partSize);
        partSize += missing;
        piece.remove_prefix(missing);
        if (partSize < size)
            return;
        partSize = 0;
        wholeNumbers({part.data(), size});
    }
    const size_t rest = piece.size() % size;
    wholeNumbers(piece.substr(0, piece.size() - rest));
    std::copy_n(piece.data() + piece.size() - rest, rest, part.data());
    partSize = rest;
}

void ArrayReader::Private::wholeNumbers(std::string_view piece) {
    switch (format.number) {
    case ArrayFormat::Number::Float32:
        return add<float, quint32>(piece);
    case ArrayFormat::Number::Float64:
        return add<double, quint64>(piece);
    case ArrayFormat::Number::Int32:
        return add<qint32, quint32>(piece);
    case ArrayFormat::Number::Int64:
        return add<qint64, quint64>(piece);
    case ArrayFormat::Number::Unknown:
        return;
    }
}

template <typename Value, typename Bits>
void ArrayReader::Private::add(std::string_view piece) {
    // Copies, so that the sums may stay in registers.
    auto current = sums;
    int at = channel;
    for (size_t offset = 0; offset < piece.size(); offset += sizeof(Bits)) {
        Bits raw;
        std::memcpy(&raw, piece.data() + offset, sizeof(Bits));
        if (format.isBigEndian)
            raw = reversed(raw);
        current[size_t(at)].add(double(std::bit_cast<Value>(raw)));
        at = format.channels == 2 ? 1 - at : 0;
    }
    sums = current;
    channel = at;
}

Error ArrayReader::end() {
    if (d->problem.isEmpty())
        d->endText();
    if (d->problem.isEmpty() && d->hasPacked && !d->isInflated)
        d->fail(msText("its compressed data ends too early."));
    if (d->problem.isEmpty() && (d->partSize > 0 || d->channel != 0))
        d->fail(msText("it ends within a number or a pair of numbers."));
    for (size_t channel = 0; channel < d->sums.size(); ++channel)
        d->figures[channel] = d->sums[channel].figures();
    return d->problem.isEmpty() ? Error() : Error(ErrorCode::ParseError, d->problem);
}

const ArrayReader::Figures& ArrayReader::figures(int channel) const {
    return d->figures[size_t(channel)];
}

} // namespace orx
