#include "async_caller/job_pool.h"

#include <algorithm>
#include <stdexcept>

namespace AsyncCaller {

JobPool::~JobPool() { WaitAll(); }

void JobPool::Resize(std::size_t count) {
    WaitAll();
    slots.clear();
    slot_of_job.clear();
    ready.clear();
    running.clear();
    done.clear();
    for (std::size_t i = 0; i < count; ++i) {
        slots.push_back(std::make_unique<Slot>());
        ready.push_back(static_cast<int>(i));
    }
}

int JobPool::Assign(std::function<int()> job, int job_number, int slot) {
    if (slot < 0) {
        if (ready.empty()) {
            return -1;
        }
        slot = ready.front();
    } else if (std::find(ready.begin(), ready.end(), slot) == ready.end()) {
        throw std::runtime_error("Attempted to assign job to worker that is not ready.");
    }
    ready.remove(slot);
    running.push_back(slot);
    Slot& s = *slots[static_cast<std::size_t>(slot)];
    s.job_number = job_number;
    s.text.clear();
    s.state = kWorking;
    slot_of_job[job_number] = slot;
    Slot* target = &s;
    s.result = std::async(std::launch::async, [job = std::move(job), target]() {
        int value = -1;
        try {
            value = job();
        } catch (...) {
            target->state = kDone;
            throw;
        }
        target->state = kDone;
        return value;
    });
    return slot;
}

bool JobPool::IsWorking(int slot) const { return slots.at(static_cast<std::size_t>(slot))->state == kWorking; }

void JobPool::Reset(int slot) {
    Slot& s = *slots.at(static_cast<std::size_t>(slot));
    if (s.state == kWorking) {
        throw std::runtime_error("Cannot reset a worker that is still working.");
    }
    if (s.result.valid()) {
        s.result.wait();
        s.result = std::future<int>();
    }
    s.state = kReady;
    s.job_number = -1;
    running.remove(slot);
    done.remove(slot);
    if (std::find(ready.begin(), ready.end(), slot) == ready.end()) {
        ready.push_back(slot);
    }
}

void JobPool::WaitAll() {
    for (auto& s : slots) {
        if (s->result.valid()) {
            s->result.wait();
        }
    }
    for (std::size_t i = 0; i < slots.size(); ++i) {
        Slot& s = *slots[i];
        s.result = std::future<int>();
        s.state = kReady;
        s.job_number = -1;
    }
    slot_of_job.clear();
    running.clear();
    done.clear();
    ready.clear();
    for (std::size_t i = 0; i < slots.size(); ++i) {
        ready.push_back(static_cast<int>(i));
    }
}

}  // namespace AsyncCaller
