#include <Qel/graph/FrameWriter.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace Morvane::Qel {

struct FrameWriter::Private
{
    struct Job
    {
        /// Position in the order of `add`.
        int position;
        FramePixels frame;
    };

    void run()
    {
        std::unique_lock lock(mutex);
        while (true) {
            changed.wait(lock, [this] { return !jobs.empty() || isStopped; });
            if (jobs.empty() || hasFailed) {
                return;
            }
            const Job job = std::move(jobs.front());
            jobs.pop_front();
            changed.notify_all();
            lock.unlock();
            QString jobError;
            const bool good = write(job.frame, &jobError);
            lock.lock();
            if (good) {
                written.insert(job.position);
            } else if (!hasFailed) {
                hasFailed = true;
                error = jobError;
            }
            changed.notify_all();
        }
    }

    /// Lets the threads end when there are no jobs left.
    void join()
    {
        {
            const std::lock_guard lock(mutex);
            isStopped = true;
        }
        changed.notify_all();
        for (std::thread& thread : threads) {
            thread.join();
        }
        threads.clear();
    }

    Write write;
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::deque<Job> jobs;
    std::set<int> written;
    int numAdded = 0;
    bool isStopped = false;
    bool hasFailed = false;
    QString error;
    std::vector<std::thread> threads;
};

FrameWriter::FrameWriter(Write write, int numThreads)
    : d(std::make_unique<Private>())
{
    d->write = std::move(write);
    for (int i = 0; i < numThreads; ++i) {
        d->threads.emplace_back([this] { d->run(); });
    }
}

FrameWriter::~FrameWriter()
{
    {
        const std::lock_guard lock(d->mutex);
        d->jobs.clear();
    }
    d->join();
}

bool FrameWriter::add(FramePixels frame)
{
    std::unique_lock lock(d->mutex);
    const size_t room = d->threads.size();
    d->changed.wait(lock, [this, room] { return d->jobs.size() < room || d->hasFailed; });
    if (d->hasFailed) {
        return false;
    }
    d->jobs.push_back({d->numAdded++, std::move(frame)});
    d->changed.notify_all();
    return true;
}

bool FrameWriter::finish(QString* error)
{
    d->join();
    if (d->hasFailed) {
        *error = d->error;
    }
    return !d->hasFailed;
}

int FrameWriter::numWritten() const
{
    const std::lock_guard lock(d->mutex);
    int number = 0;
    while (d->written.count(number) > 0) {
        ++number;
    }
    return number;
}

} // namespace Morvane::Qel
