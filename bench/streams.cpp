// Streaming between two processes: a producer appends fixed-size records to
// the SDC ring and a registered consumer polls them out, beside the same
// stream through a pipe. Both move a fixed byte count; the figure is MB/s
// from the first record to the consumer's last byte.
//
// The ring overwrites its oldest bytes when the producer runs ahead, which a
// throughput figure must not count as delivered. The producer therefore stays
// at most kLead bytes ahead of what the consumer has counted (a counter in a
// shared anonymous mapping, no system call), as a pipe's buffer does in the
// kernel.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/mman.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench.h"
#include "libshm.h"

namespace {

// 64 MiB per stream; SHM_BENCH_STREAM_MIB sets another size (bench/run
// --smoke uses a small one).
uint64_t stream_bytes() {
    static const uint64_t bytes = [] {
        const char* text = std::getenv("SHM_BENCH_STREAM_MIB");
        const long mib = text != nullptr ? std::atol(text) : 0;
        return uint64_t(mib > 0 ? mib : 64) << 20;
    }();
    return bytes;
}
constexpr uint64_t kLead = SDC_RING_SIZE / 2;
// A consumer that finds nothing new waits this long (microseconds) before it
// polls again, as a periodic consumer does, rather than taking the section's
// lock again at once: a System V semaphore is handed straight to a waiter on
// release, so a consumer that polls in a tight loop turns every append into
// a hand-over between the two processes.
constexpr useconds_t kPollPause = 50;

struct Progress {
    std::atomic<uint64_t> consumed;
};

Progress* shared_progress() {
    void* memory = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return nullptr;
    return new (memory) Progress{};
}

int32_t slot_last_offset(int32_t id) {
    return SDC_HEADER_OFFSET + int32_t(offsetof(SdcHeader, SDCAppTable)) +
           id * int32_t(sizeof(SdcAppEntry)) + int32_t(offsetof(SdcAppEntry, iLast));
}

// An empty ring and a consumer registered at its start; the slot's id, or -1.
int32_t fresh_consumer() {
    if (Vond_shm_clear_sdc() != 0) return -1;
    const std::vector<unsigned char> zeros(sizeof(SdcAppEntry) * SDC_MAX_APPS, 0);
    if (Vond_shm_memwrite(SHM_SEC_SDC, zeros.data(),
                          SDC_HEADER_OFFSET + int32_t(offsetof(SdcHeader, SDCAppTable)),
                          int32_t(zeros.size())) != 0)
        return -1;
    int32_t id = -1;
    if (Vond_shm_periodic_register_sdc("stream", &id) != 0) return -1;
    return id;
}

// The consumer: polls until it has counted `total` bytes. A poll's length is
// Tail + 1 after a wrap, so the count comes from the slot's iLast before and
// after the poll (only this process writes that slot, so the unlocked read of
// it is exact).
int consume_sdc(int32_t id, uint64_t total, Progress* progress) {
    std::vector<unsigned char> buffer(SDC_POLL_BUFFER_SIZE);
    uint32_t last = 0;
    uint64_t counted = 0;
    while (counted < total) {
        uint32_t length = 0;
        if (Vond_shm_periodic_get_sdc(&length, buffer.data(), uint32_t(id)) != 0) return 1;
        if (length == 0) {
            usleep(kPollPause);
            continue;
        }
        unsigned char bytes[4];
        if (Vond_shm_memread_unlocked(SHM_SEC_SDC, bytes, slot_last_offset(id), 4) != 0) return 1;
        uint32_t now;
        std::memcpy(&now, bytes, 4);
        counted += now > last ? now - last : SDC_RING_SIZE + now - last;
        last = now;
        progress->consumed.store(counted, std::memory_order_release);
    }
    return counted == total ? 0 : 1;
}

void stream_sdc(benchmark::State& state) {
    const auto n = uint32_t(state.range(0));
    std::vector<unsigned char> record(n, 0x6b);
    Progress* progress = shared_progress();
    if (progress == nullptr) {
        state.SkipWithError("mmap");
        return;
    }
    for (auto _ : state) {
        const int32_t id = fresh_consumer();
        if (id < 0) {
            state.SkipWithError("consumer registration");
            break;
        }
        progress->consumed.store(0);
        const uint64_t start = bench::now_ns();
        const pid_t consumer = bench::fork_child([&]() { return consume_sdc(id, stream_bytes(), progress); });
        bool ok = true;
        for (uint64_t produced = 0; produced < stream_bytes() && ok; produced += n) {
            while (produced + n - progress->consumed.load(std::memory_order_acquire) > kLead)
                sched_yield();
            ok = Vond_shm_write_sdc(&n, record.data()) == 0;
        }
        ok = bench::child_ok(consumer) && ok;
        state.SetIterationTime(double(bench::now_ns() - start) / 1e9);
        if (!ok) {
            state.SkipWithError("stream failed");
            break;
        }
    }
    munmap(progress, sizeof(Progress));
    state.SetBytesProcessed(int64_t(state.iterations() * stream_bytes()));
}

void stream_pipe(benchmark::State& state) {
    const auto n = size_t(state.range(0));
    std::vector<unsigned char> record(n, 0x6b);
    for (auto _ : state) {
        int fds[2];
        if (pipe(fds) != 0) {
            state.SkipWithError("pipe");
            break;
        }
        const uint64_t start = bench::now_ns();
        const pid_t consumer = bench::fork_child([&]() {
            close(fds[1]);
            std::vector<unsigned char> buffer(SDC_POLL_BUFFER_SIZE);
            uint64_t counted = 0;
            while (counted < stream_bytes()) {
                const ssize_t got = read(fds[0], buffer.data(), buffer.size());
                if (got <= 0) return 1;
                counted += uint64_t(got);
            }
            return counted == stream_bytes() ? 0 : 1;
        });
        close(fds[0]);
        bool ok = true;
        for (uint64_t produced = 0; produced < stream_bytes() && ok; produced += n) {
            size_t done = 0;
            while (done < n && ok) {
                const ssize_t put = write(fds[1], record.data() + done, n - done);
                ok = put > 0;
                if (ok) done += size_t(put);
            }
        }
        close(fds[1]);
        ok = bench::child_ok(consumer) && ok;
        state.SetIterationTime(double(bench::now_ns() - start) / 1e9);
        if (!ok) {
            state.SkipWithError("pipe stream failed");
            break;
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations() * stream_bytes()));
}

}  // namespace

void bench::register_stream_benchmarks() {
    benchmark::RegisterBenchmark("stream/sdc", stream_sdc)
        ->Arg(1024)->Arg(16384)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("stream/pipe", stream_pipe)
        ->Arg(1024)->Arg(16384)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
}
