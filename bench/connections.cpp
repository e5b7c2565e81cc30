/// New connections while something else happens:
///
///   bench_connections serve PORT...                 accepts and closes; prints "ready"
///   bench_connections probe ADDRESS OPEN DENIED     opens a connection to each port every
///                                                   millisecond until its input ends
///
/// The prober then prints the results, as "NAME VALUE" lines:
///   attempts      connections tried with the open port
///   failed        of these, those not established within a fifth of a second: a lost packet is
///                 repeated after one
///   stall         the longest time in seconds without a successful attempt
///   denied_open   connections that the denied port accepted
///   denied_time   seconds from the first to the last of them
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>
#include <vector>

namespace {

constexpr double kInterval = 0.001;
constexpr double kPatience = 0.2;
constexpr int kBacklog = 4096;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

double now() {
    timespec time{};
    (void)clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

/// At the highest priority, so that a delay of this program does not count as a stall.
void runAhead() {
    sched_param parameters{};
    parameters.sched_priority = 10;
    if (sched_setscheduler(0, SCHED_FIFO, &parameters) != 0) {
        std::perror("bench_connections: goes on without priority");
    }
}

void closeAtOnce(int fd) {
    const linger reset = {1, 0};  // a closed connection keeps no port
    (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    (void)close(fd);
}

// ---- Server -------------------------------------------------------------------------------------

int listenOn(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd, kBacklog) != 0) {
        fail("bench_connections: listen");
    }
    return fd;
}

void serve(const std::vector<int>& ports) {
    std::vector<pollfd> listeners;
    for (const int port : ports) {
        listeners.push_back({listenOn(port), POLLIN, 0});
    }
    runAhead();
    std::puts("ready");
    (void)std::fflush(stdout);
    for (;;) {
        if (poll(listeners.data(), listeners.size(), -1) < 0 && errno != EINTR) {
            fail("bench_connections: poll");
        }
        for (const pollfd& listener : listeners) {
            for (int fd = 0; (fd = accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
                closeAtOnce(fd);
            }
        }
    }
}

// ---- Prober -------------------------------------------------------------------------------------

struct Attempt {
    int fd = -1;
    bool denied = false;
    double started = 0;
    bool over = false;
};

class Prober {
public:
    Prober(const char* address, int openPort, int deniedPort) : events_(epoll_create1(0)) {
        if (events_ < 0 || inet_pton(AF_INET, address, &address_.sin_addr) != 1) {
            fail("bench_connections: address");
        }
        address_.sin_family = AF_INET;
        ports_[0] = openPort;
        ports_[1] = deniedPort;
    }

    void run() {
        lastThrough_ = now();
        double next = lastThrough_;
        while (!inputEnded()) {
            const double time = now();
            if (time >= next) {
                start(false);
                start(true);
                // Does not catch up: a burst would disturb its own measurement.
                next = std::max(next + kInterval, time);
            }
            collect(std::max(next - now(), 0.0));
            giveUp();
        }
        print();
    }

private:
    static bool inputEnded() {
        pollfd input = {STDIN_FILENO, POLLIN, 0};
        char byte = 0;
        return poll(&input, 1, 0) > 0 && read(STDIN_FILENO, &byte, 1) <= 0;
    }

    void start(bool denied) {
        attempts_ += denied ? 0 : 1;
        Attempt& attempt = pending_.emplace_back();
        attempt.denied = denied;
        attempt.started = now();
        attempt.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        address_.sin_port = htons(static_cast<std::uint16_t>(ports_[denied ? 1 : 0]));
        if (attempt.fd < 0) {
            fail("bench_connections: socket");
        }
        if (connect(attempt.fd, reinterpret_cast<sockaddr*>(&address_), sizeof(address_)) != 0 &&
            errno != EINPROGRESS) {
            end(attempt, false);
            return;
        }
        epoll_event event{};
        event.events = EPOLLOUT;
        event.data.ptr = &attempt;  // a deque does not move its elements
        if (epoll_ctl(events_, EPOLL_CTL_ADD, attempt.fd, &event) != 0) {
            fail("bench_connections: epoll_ctl");
        }
    }

    /// Collects finished attempts; waits at most this long for the first.
    void collect(double seconds) {
        epoll_event ready[64];
        timespec wait{};
        wait.tv_nsec = static_cast<long>(seconds * 1e9);
        const int count = epoll_pwait2(events_, ready, 64, &wait, nullptr);
        for (int i = 0; i < count; ++i) {
            Attempt& attempt = *static_cast<Attempt*>(ready[i].data.ptr);
            int error = 0;
            socklen_t size = sizeof(error);
            (void)getsockopt(attempt.fd, SOL_SOCKET, SO_ERROR, &error, &size);
            end(attempt, error == 0 || error == ECONNRESET);  // reset by the server, which answered
        }
    }

    /// Attempts that are not established by now were dropped.
    void giveUp() {
        const double time = now();
        while (!pending_.empty() &&
               (pending_.front().over || time - pending_.front().started > kPatience)) {
            if (!pending_.front().over) {
                end(pending_.front(), false);
            }
            pending_.pop_front();
        }
    }

    void end(Attempt& attempt, bool through) {
        attempt.over = true;
        closeAtOnce(attempt.fd);
        if (attempt.denied) {
            if (through) {
                deniedFirst_ = deniedOpen_ == 0 ? attempt.started : deniedFirst_;
                deniedLast_ = attempt.started;
                ++deniedOpen_;
            }
        } else if (through) {
            const double time = now();
            stall_ = std::max(stall_, time - lastThrough_);
            lastThrough_ = time;
        } else {
            ++failed_;
        }
    }

    void print() const {
        std::printf("attempts %d\nfailed %d\nstall %.6f\ndenied_open %d\ndenied_time %.6f\n",
                    attempts_, failed_, std::max(stall_, now() - lastThrough_), deniedOpen_,
                    deniedLast_ - deniedFirst_);
    }

    int events_;
    sockaddr_in address_{};
    int ports_[2] = {};
    std::deque<Attempt> pending_;
    int attempts_ = 0;
    int failed_ = 0;
    double lastThrough_ = 0;
    double stall_ = 0;
    int deniedOpen_ = 0;
    double deniedFirst_ = 0;
    double deniedLast_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "serve" && argc > 2) {
        std::vector<int> ports;
        for (int i = 2; i < argc; ++i) {
            ports.push_back(std::atoi(argv[i]));
        }
        serve(ports);
    } else if (command == "probe" && argc == 5) {
        (void)setvbuf(stdout, nullptr, _IOLBF, 0);
        runAhead();
        Prober(argv[2], std::atoi(argv[3]), std::atoi(argv[4])).run();
    } else {
        std::fprintf(stderr, "bench_connections: serve PORT..., or probe ADDRESS OPEN DENIED\n");
        return 2;
    }
    return 0;
}
