#include "maths/peak_fit/job.h"

#include "maths/peak_fit/far.h"
#include "maths/peak_fit/recorder.h"
#include "server/interrupt.h"
#include "server/output.h"
#include "server/timebar.h"
#include "support/metrics_text.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <new>
#include <optional>
#include <system_error>
#include <thread>

namespace kestrel {

peak_fit_far_hooks peak_fit_far;

namespace {

constexpr int fewest_for_threads = 65; // spectra along the scan axis
constexpr auto poll_every = std::chrono::milliseconds(50);
constexpr auto show_every = std::chrono::milliseconds(500);

std::atomic<std::uint64_t> points_done{0}, points_failed{0}; // of all commands so far

// What the threads of a part share.
struct crew {
    std::atomic<bool> stop = false;
    std::atomic<bool> out_of_memory = false; // and its line is printed
    std::atomic<int> fitted = 0;
    std::mutex mutex;
    std::condition_variable finished;
    int running = 0; // under the mutex
};

// One thread's copy of the job, with its block of points.
struct peak_fit_job {
    int thread = 0;
    int first = 0, last = 0;
    peak_fit_request request;
    peak_fit_part part;
    const result_module *output = nullptr;
    crew *together = nullptr;
    bool calling_thread = false;
    int done = 0, total = 0;
    peak_fit_progress progress;
    peak_fit_counts counts;
};

bool stopped_together(const void *together) {
    return static_cast<const crew *>(together)->stop.load(std::memory_order_relaxed);
}

// The same on the command thread, which is where ^C arrives.
bool interrupted(const void *together) {
    return sv_quit > 0 || stopped_together(together);
}

struct worker {
    peak_fit_job &job;
    peak_fit_point fitter;
    std::optional<peak_fit_recorder> recorder;

    int point(int q, int s) const {
        return job.part.first_point + job.part.first_q + (q - job.part.q1) +
               (job.part.first_s + s) * job.part.scan_nq;
    }

    void tell(int q, int s, const peak_fit_fitted &fitted) const {
        const int cn = job.request.cn;
        if (fitted.status == peak_fit_status::failed)
            sv_printf(cn, "! Point %d cannot be fitted\n", point(q, s));
        if (fitted.status != peak_fit_status::fitted)
            return;
        const peak_fit_peak_t &p = fitted.peak[0];
        sv_printf(
            cn, "# Point %d : Fitted posn=%g, Hgt=%g, FWHM (kev)=%g, sigma=%g, lor_wid=%g, lor_frac=%g\n",
            point(q, s), p.posn, p.height, peak_fit_fwhm(p) * peak_fit_calibration(fitted, job.request.lines),
            p.sigma, p.lor_width, p.lor_frac);
    }

    // False when ^C came.
    bool one(int q, int s) {
        if (job.calling_thread) {
            if (sv_poll_quit(job.request.cn) > 0)
                job.together->stop = true;
            job.progress.show(job.request.cn, job.done + job.together->fitted, job.total);
        }
        if (job.together->stop)
            return false;
        if (recorder)
            recorder->begin(job.request, fitter.solver, point(q, s));
        const peak_fit_fitted fitted = fitter.fit(job.request, *job.part.spectra, q, s, point(q, s));
        if (recorder)
            recorder->store();
        if (fitted.status == peak_fit_status::stopped)
            return false;
        if (job.request.tell)
            tell(q, s, fitted);
        peak_fit_count(job.counts, fitted.status, fitted.near_ends, fitted.high_at_ends);
        peak_fit_put(*job.output, job.part.first_q + (q - job.part.q1), job.part.first_s + s,
                     peak_fit_values(fitted, job.request.lines, fitter.spectrum));
        ++job.together->fitted;
        return true;
    }
};

int points_of(const peak_fit_job &job) {
    return (job.last - job.first + 1) * job.part.spectra->ns;
}

void tell_out_of_memory(const peak_fit_job &job) {
    if (!job.together->out_of_memory.exchange(true))
        sv_printf(job.request.cn, "! ERROR: Cannot malloc memory for x vector\n");
}

// Fits a job's block. Out of memory ends the block, not the server: what is left of it counts as errors.
void peak_fit_unified_do(peak_fit_job &job) {
    int left = points_of(job);
    try {
        worker w{job, {}, {}};
        if (job.calling_thread && job.request.debug > 1 && job.total < fewest_for_threads)
            w.recorder.emplace();
        for (int s = 0; s < job.part.spectra->ns; ++s)
            for (int q = job.first; q <= job.last; ++q, --left)
                if (!w.one(q, s)) {
                    job.counts.stopped = true;
                    return;
                }
    } catch (const std::bad_alloc &) {
        tell_out_of_memory(job);
        job.counts.errors += left;
    }
}

void run_thread(peak_fit_job &job) {
    peak_fit_unified_do(job);
    const std::lock_guard lock(job.together->mutex);
    --job.together->running;
    job.together->finished.notify_one();
}

// Waits for every worker, listening for ^C.
void wait_for(crew &together, int cn, int done, int total, peak_fit_progress progress) {
    std::unique_lock lock(together.mutex);
    while (together.running > 0) {
        together.finished.wait_for(lock, poll_every);
        lock.unlock();
        if (sv_poll_quit(cn) > 0)
            together.stop = true;
        progress.show(cn, done + together.fitted, total);
        lock.lock();
    }
}

// Starts the thread of a job; false after a line.
bool start(peak_fit_job &job, int nthreads, std::vector<std::jthread> &threads) {
    {
        const std::lock_guard lock(job.together->mutex);
        ++job.together->running;
    }
    int error = 0;
    try {
        threads.emplace_back([&job] { run_thread(job); });
        return true;
    } catch (const std::system_error &failed) {
        error = failed.code().value();
    } catch (const std::bad_alloc &) {
        error = ENOMEM;
    }
    sv_printf(job.request.cn, "! ERROR creating thread %d of %d. rc=%d\n", job.thread, nthreads, error);
    const std::lock_guard lock(job.together->mutex);
    --job.together->running;
    return false;
}

int join(std::vector<std::jthread> &threads, int cn) {
    int errors = 0;
    for (std::size_t i = 0; i < threads.size(); ++i) {
        try {
            threads[i].join();
        } catch (const std::system_error &error) {
            sv_printf(cn, "! ERROR : pthread_join reports error %d for thread %d\n", error.code().value(),
                      static_cast<int>(i));
            ++errors;
        }
    }
    return errors;
}

peak_fit_counts fit_on_threads(const peak_fit_job &whole) {
    const int most = whole.request.max_threads;
    const std::vector<peak_fit_block> blocks = peak_fit_blocks(whole.first, whole.last, most);
    const int nthreads = static_cast<int>(blocks.size());
    peak_fit_counts counts;
    if (nthreads < 1 || nthreads > most) {
        sv_printf(whole.request.cn,
                  "! Coding error at %s:%d nq=%d, dq=%d nthreads=%d, peak_fit_max_threads=%d\n", __FILE__,
                  __LINE__, whole.last - whole.first + 1,
                  blocks.empty() ? 0 : blocks[0].last - blocks[0].first + 1, nthreads, most);
        ++counts.errors;
        return counts;
    }
    std::vector<peak_fit_job> jobs(blocks.size(), whole);
    std::vector<std::jthread> threads;
    threads.reserve(jobs.size());
    sv_flush_all(whole.request.cn);
    for (int i = 0; i < nthreads; ++i) {
        peak_fit_job &job = jobs[static_cast<std::size_t>(i)];
        job.thread = i;
        job.calling_thread = false;
        job.request.stopped = stopped_together;
        job.first = blocks[static_cast<std::size_t>(i)].first;
        job.last = blocks[static_cast<std::size_t>(i)].last;
        if (!start(job, nthreads, threads))
            counts.errors += points_of(job);
    }
    wait_for(*whole.together, whole.request.cn, whole.done, whole.total, whole.progress);
    counts.errors += join(threads, whole.request.cn);
    for (const peak_fit_job &job : jobs)
        counts += job.counts;
    return counts;
}

} // namespace

void peak_fit_progress::show(int cn, int done, int total) {
    const auto now = std::chrono::steady_clock::now();
    if (now < next_)
        return;
    sv_timebar(cn, done, total, "Peak fit");
    next_ = now + show_every;
}

std::vector<peak_fit_block> peak_fit_blocks(int first, int last, int max_threads) {
    const int nq = last - first + 1;
    const int dq = (nq + max_threads - 1) / max_threads;
    std::vector<peak_fit_block> blocks;
    for (int at = first; at <= last; at += dq)
        blocks.push_back({at, std::min(at + dq - 1, last)});
    return blocks;
}

peak_fit_counts peak_fit_fit_part(const peak_fit_request &request, const peak_fit_part &part,
                                  const result_module &output, int done, int total) {
    if (!request.site.empty() && peak_fit_far.fit_part)
        return peak_fit_far.fit_part(request, part, output, done, total);
    crew together;
    peak_fit_job job;
    job.first = part.q1;
    job.last = part.q2;
    job.request = request;
    job.request.stopped = interrupted;
    job.request.user = &together;
    job.part = part;
    job.output = &output;
    job.together = &together;
    job.calling_thread = true;
    job.done = done;
    job.total = total;
    if (request.max_threads > 1 && part.q2 - part.q1 + 1 >= fewest_for_threads)
        return fit_on_threads(job);
    peak_fit_unified_do(job);
    return job.counts;
}

int peak_fit_close(int cn, const peak_fit_counts &c, int total) {
    if (c.stopped) {
        sv_printf(cn, "! Fitting terminated by ^C\n");
        return -1;
    }
    if (c.abandoned)
        return -1;
    points_done.fetch_add(static_cast<std::uint64_t>(total), std::memory_order_relaxed);
    points_failed.fetch_add(static_cast<std::uint64_t>(c.errors), std::memory_order_relaxed);
    const int warnings = c.insufficient + c.near_ends + c.high_at_ends;
    if (c.errors > 0 || warnings > 0)
        sv_printf(cn,
                  "%s : Number of points with Errors=%d, insufficient counts=%d, peaks near x1/2=%d, large "
                  "values near x1/x2=%d out of %d\n",
                  c.errors > 0 ? "! ERROR" : "# WARNING", c.errors, c.insufficient, c.near_ends,
                  c.high_at_ends, total);
    return c.errors > 0 ? -1 : warnings;
}

void peak_fit_metrics(std::string &out) {
    metric_single(out, "kestrel_fits_total", "counter", "Points that peak fits were tried on.",
                  std::to_string(points_done));
    metric_single(out, "kestrel_fit_failures_total", "counter", "Points that could not be fitted.",
                  std::to_string(points_failed));
}

} // namespace kestrel
