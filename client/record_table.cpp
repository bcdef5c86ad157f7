#include "client/record_table.h"

#include "client/annotation_text.h"
#include "client/published_descriptor.h"

#include <algorithm>
#include <cstring>
#include <immintrin.h>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

namespace vantor::client {

using crash::CustomDataDescriptor;
using crash::CustomDataEntry;

namespace {

constexpr size_t kPage = 4096;
constexpr size_t kDescriptorSize = 64; // a cache line of its own
constexpr size_t kDigestsAtOnce = 4;

constexpr size_t roundUp(size_t size, size_t unit) {
    return (size + unit - 1) / unit * unit;
}

/// Tells names apart, as a rule. A name is filled with zeroes, so that a word of them ends it.
uint32_t digestOf(const CustomDataEntry& record) {
    uint64_t digest = 0;
    for (size_t i = 0; i < sizeof(record.name); i += sizeof(uint64_t)) {
        uint64_t word = 0;
        std::memcpy(&word, record.name + i, sizeof(word));
        if (word == 0)
            break;
        digest = (digest ^ (digest >> 32) ^ word) * 0x9E3779B97F4A7C15;
    }
    return static_cast<uint32_t>(digest >> 32);
}

} // namespace

/// What setters know besides the records. A fork fills it with zeroes.
struct alignas(__m128i) RecordTable::Bookkeeping {
    SetterLock lock;
    bool is_valid; // false after a fork
    // The records in which the spare differs from what is shown.
    size_t stale_first;
    size_t stale_count;
    size_t text_bytes;
};

/// Where everything stands in the mapping, the descriptor in front.
struct RecordTable::Layout {
    explicit Layout(size_t capacity)
        : arrays{kDescriptorSize, kDescriptorSize + capacity * sizeof(CustomDataEntry)},
          bookkeeping(roundUp(arrays[1] + capacity * sizeof(CustomDataEntry), kPage)),
          digests(bookkeeping + sizeof(Bookkeeping)),
          end(roundUp(digests + roundUp(capacity, kDigestsAtOnce) * sizeof(uint32_t), kPage)) {}

    const size_t arrays[2];
    const size_t bookkeeping; // from here on a fork wipes
    const size_t digests;
    const size_t end;
};

std::unique_ptr<RecordTable> RecordTable::map(size_t capacity, size_t fixed_count) {
    const Layout layout(capacity + kMostFacts);
    void* mapping =
        mmap(nullptr, layout.end, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (mapping == MAP_FAILED)
        return nullptr;

    auto* memory = static_cast<char*>(mapping);
    std::unique_ptr<RecordTable> table;
    if (madvise(memory + layout.bookkeeping, layout.end - layout.bookkeeping, MADV_WIPEONFORK) == 0)
        table.reset(new (std::nothrow) RecordTable(memory, layout, capacity, fixed_count));
    if (!table)
        (void)munmap(mapping, layout.end);
    return table;
}

RecordTable::RecordTable(char* memory, const Layout& layout, size_t capacity, size_t fixed_count)
    : m_size(layout.end),
      m_capacity(capacity),
      m_fixed_count(fixed_count),
      m_descriptor(new (memory) CustomDataDescriptor{}),
      m_arrays{reinterpret_cast<CustomDataEntry*>(memory + layout.arrays[0]),
               reinterpret_cast<CustomDataEntry*>(memory + layout.arrays[1])},
      m_bookkeeping(new (memory + layout.bookkeeping) Bookkeeping{}),
      m_digests(reinterpret_cast<uint32_t*>(memory + layout.digests)) {
    (void)client::publish(m_descriptor, static_cast<uint32_t>(fixed_count), m_arrays[0]);
}

RecordTable::~RecordTable() {
    (void)munmap(m_descriptor, m_size);
}

void RecordTable::freeze() {
    client::freeze(m_descriptor);
}

void RecordTable::thaw() {
    client::thaw(m_descriptor);
}

CustomDataEntry* RecordTable::addFact() {
    const uint32_t count = m_descriptor->count;
    if (m_fact_process != getpid())
        m_fact_count = 0;
    m_fact_process = getpid();
    if (m_fact_count == kMostFacts || count == m_capacity + kMostFacts)
        return nullptr;

    CustomDataEntry* const fact = m_arrays[shown() == m_arrays[0] ? 0 : 1] + count;
    std::memset(fact, 0, sizeof(*fact));
    ++m_fact_count;
    m_descriptor->count = count + 1; // nobody else changes it while it is frozen
    return fact;
}

void RecordTable::dropFacts() {
    if (m_fact_process == getpid())
        m_descriptor->count -= m_fact_count;
    m_fact_count = 0;
}

const CustomDataEntry* RecordTable::shown() const {
    return reinterpret_cast<const CustomDataEntry*>(m_descriptor->entries);
}

CustomDataEntry* RecordTable::spare() const {
    return m_arrays[shown() == m_arrays[0] ? 1 : 0];
}

void RecordTable::copyToSpare(size_t first, size_t count) {
    for (size_t i = first; i < first + count; ++i)
        copyRecord(shown()[i], spare() + i); // most values are short
}

void RecordTable::recover() {
    const size_t count = m_descriptor->count;
    copyToSpare(0, count);
    m_bookkeeping->stale_count = 0;
    m_bookkeeping->text_bytes = 0;
    for (size_t i = 0; i < count; ++i) {
        m_digests[i] = digestOf(shown()[i]);
        if (i >= m_fixed_count)
            m_bookkeeping->text_bytes += client::textBytes(shown()[i]);
    }
    m_bookkeeping->is_valid = true;
}

RecordTable::Change::Change(RecordTable& table)
    : m_table(table),
      m_error(table.m_bookkeeping->lock.acquire([&table] { return isFrozen(table.m_descriptor); })) {
    if (m_error == AnnotationError::None && !table.m_bookkeeping->is_valid)
        table.recover();
}

RecordTable::Change::~Change() {
    if (m_error == AnnotationError::None)
        m_table.m_bookkeeping->lock.release();
}

std::span<const CustomDataEntry> RecordTable::Change::shown() const {
    return {m_table.shown(), m_table.m_descriptor->count};
}

size_t RecordTable::Change::find(const CustomDataEntry& record) const {
    const size_t count = m_table.m_descriptor->count;
    const __m128i wanted = _mm_set1_epi32(static_cast<int>(digestOf(record)));
    for (size_t first = 0; first < count; first += kDigestsAtOnce) {
        const __m128i four = _mm_load_si128(reinterpret_cast<const __m128i*>(m_table.m_digests + first));
        int matches = _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(four, wanted)));
        for (; matches != 0; matches &= matches - 1) {
            const size_t i = first + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(matches)));
            if (i < count && std::memcmp(shown()[i].name, record.name, sizeof(record.name)) == 0)
                return i;
        }
    }
    return count;
}

size_t RecordTable::Change::textBytes() const {
    return m_table.m_bookkeeping->text_bytes;
}

std::span<CustomDataEntry> RecordTable::Change::edit(size_t first, size_t count) {
    Bookkeeping& bookkeeping = *m_table.m_bookkeeping;
    m_table.copyToSpare(bookkeeping.stale_first, bookkeeping.stale_count);
    bookkeeping.stale_first = first;
    bookkeeping.stale_count = count;
    return {m_table.spare() + first, count};
}

AnnotationError RecordTable::Change::publish(size_t count, size_t text_bytes) {
    if (!client::publish(m_table.m_descriptor, static_cast<uint32_t>(count), m_table.spare()))
        return AnnotationError::Frozen;

    Bookkeeping& bookkeeping = *m_table.m_bookkeeping;
    for (size_t i = bookkeeping.stale_first; i < bookkeeping.stale_first + bookkeeping.stale_count; ++i)
        m_table.m_digests[i] = digestOf(m_table.shown()[i]);
    bookkeeping.text_bytes = text_bytes;
    return AnnotationError::None;
}

} // namespace vantor::client
