// Streaming between two processes: a producer appends fixed-size records to
// the SDC ring and a registered consumer polls them out, beside the same
// stream through a pipe. Both move a fixed byte count; the figure is MB/s
// from the first record to the consumer's last byte. Starting and ending the
// consumer process is not part of it: the producer starts the clock once the
// forked consumer has set itself up, and the consumer notes the moment it
// has counted the last byte (CLOCK_MONOTONIC, the same in both processes).
// Forking and reaping it took 0.5 to 2 ms here, several per cent of a
// 64 MiB stream of 16 KiB records.
//
// The ring overwrites its oldest bytes when the producer runs ahead, which a
// throughput figure must not count as delivered. The producer therefore stays
// at most kLead bytes ahead of what the consumer has counted (a counter in a
// shared anonymous mapping, no system call), as a pipe's buffer does in the
// kernel. The whole ring is that buffer: a consumer up to SDC_POLL_BUFFER_SIZE
// bytes behind is still handed every byte by its next poll.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>

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
// Half the ring (the earlier choice) leaves the producer idle for much of
// the consumer's pause: sixteen 16 KiB appends (about 3.3 us each) fill it
// in some 55 us, while a pause measured 120 to 170 us here (kPollPause, the
// kernel's timer slack and the wake-up). With the whole ring the 16 KiB
// stream went from a median of 1311 MB/s to 1703 MB/s (9 runs each,
// interleaved, on the busy two-core machine, before the other changes).
constexpr uint64_t kLead = SDC_POLL_BUFFER_SIZE;
// The consumer waits this long (microseconds) after every poll, as a periodic
// consumer does, rather than taking the section's lock again at once: a
// System V semaphore is handed straight to a waiter on release, so a
// consumer that polls again as soon as a poll brought something falls into
// step with the producer, and every locked access of both becomes a
// hand-over, a wake-up of the other process on the other core. Pausing only
// after an empty poll (the earlier rule) did that: with the machine nearly
// idle (load 1) the 16 KiB stream fell to 161 MB/s and the 1 KiB one to
// 12 MB/s in a full bench/run. Pausing after every poll, the 16 KiB stream
// measured a median of 2659 MB/s against 2243 MB/s for the earlier rule, the
// 1 KiB one 164 against 59 MB/s (9 and 3 runs, interleaved). A poll then
// takes some 27 records of 16 KiB and usually meets the producer at the lock
// once.
constexpr useconds_t kPollPause = 50;

// What the two sides of a stream share: the bytes the consumer has counted,
// its start signal and when it counted the last one.
struct Progress {
    std::atomic<uint64_t> consumed;
    std::atomic<bool> ready;
    std::atomic<uint64_t> done_ns;

    void reset() {
        consumed.store(0);
        ready.store(false);
        done_ns.store(0);
    }
};

Progress* shared_progress() {
    void* memory = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return nullptr;
    return new (memory) Progress{};
}

// Waits for the consumer's start signal; false when it exited before giving
// it (it is left to be reaped by bench::child_ok).
bool consumer_ready(const Progress* progress, pid_t consumer) {
    while (!progress->ready.load(std::memory_order_acquire)) {
        siginfo_t info{};
        if (waitid(P_PID, id_t(consumer), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
            info.si_pid == consumer)
            return false;
        sched_yield();
    }
    return true;
}

// The stream's time, from `start` to the consumer's last byte, once the
// consumer has been reaped; 0 when it never got there.
double stream_seconds(const Progress* progress, uint64_t start) {
    const uint64_t done = progress->done_ns.load(std::memory_order_acquire);
    return done > start ? double(done - start) / 1e9 : 0.0;
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
    progress->ready.store(true, std::memory_order_release);
    uint32_t last = 0;
    uint64_t counted = 0;
    while (counted < total) {
        uint32_t length = 0;
        if (Vond_shm_periodic_get_sdc(&length, buffer.data(), uint32_t(id)) != 0) return 1;
        if (length != 0) {
            unsigned char bytes[4];
            if (Vond_shm_memread_unlocked(SHM_SEC_SDC, bytes, slot_last_offset(id), 4) != 0)
                return 1;
            uint32_t now;
            std::memcpy(&now, bytes, 4);
            counted += now > last ? now - last : SDC_RING_SIZE + now - last;
            last = now;
            progress->consumed.store(counted, std::memory_order_release);
        }
        if (counted < total) usleep(kPollPause);
    }
    progress->done_ns.store(bench::now_ns(), std::memory_order_release);
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
        progress->reset();
        const pid_t consumer = bench::fork_child([&]() { return consume_sdc(id, stream_bytes(), progress); });
        bool ok = consumer_ready(progress, consumer);
        const uint64_t start = bench::now_ns();
        for (uint64_t produced = 0; produced < stream_bytes() && ok; produced += n) {
            while (produced + n - progress->consumed.load(std::memory_order_acquire) > kLead)
                sched_yield();
            ok = Vond_shm_write_sdc(&n, record.data()) == 0;
        }
        ok = bench::child_ok(consumer) && ok;
        state.SetIterationTime(stream_seconds(progress, start));
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
    Progress* progress = shared_progress();
    if (progress == nullptr) {
        state.SkipWithError("mmap");
        return;
    }
    for (auto _ : state) {
        int fds[2];
        if (pipe(fds) != 0) {
            state.SkipWithError("pipe");
            break;
        }
        progress->reset();
        const pid_t consumer = bench::fork_child([&]() {
            close(fds[1]);
            std::vector<unsigned char> buffer(SDC_POLL_BUFFER_SIZE);
            progress->ready.store(true, std::memory_order_release);
            uint64_t counted = 0;
            while (counted < stream_bytes()) {
                const ssize_t got = read(fds[0], buffer.data(), buffer.size());
                if (got <= 0) return 1;
                counted += uint64_t(got);
            }
            progress->done_ns.store(bench::now_ns(), std::memory_order_release);
            return counted == stream_bytes() ? 0 : 1;
        });
        close(fds[0]);
        bool ok = consumer_ready(progress, consumer);
        const uint64_t start = bench::now_ns();
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
        state.SetIterationTime(stream_seconds(progress, start));
        if (!ok) {
            state.SkipWithError("pipe stream failed");
            break;
        }
    }
    munmap(progress, sizeof(Progress));
    state.SetBytesProcessed(int64_t(state.iterations() * stream_bytes()));
}

}  // namespace

void bench::register_stream_benchmarks() {
    benchmark::RegisterBenchmark("stream/sdc", stream_sdc)
        ->Arg(1024)->Arg(16384)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("stream/pipe", stream_pipe)
        ->Arg(1024)->Arg(16384)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
}
