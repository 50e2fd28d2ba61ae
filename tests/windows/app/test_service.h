#pragma once

#include "app/windows_service.h"

#include "windows/support/fake_service_manager.h"
#include "windows/support/signal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

namespace ruvo::test {

inline constexpr char startPending[] = "2 type 16 accepts 0 exit 0/0 checkpoint 1 hint 3000";
inline constexpr char running[] = "4 type 16 accepts 5 exit 0/0 checkpoint 0 hint 0";
inline constexpr char stopPending[] = "3 type 16 accepts 5 exit 0/0 checkpoint 1 hint 30000";
inline constexpr char stopped[] = "1 type 16 accepts 5 exit 0/0 checkpoint 0 hint 0";
inline constexpr char failed[] = "1 type 16 accepts 5 exit 1/0 checkpoint 0 hint 0";

/// How long something that must not happen is waited for.
inline constexpr std::chrono::milliseconds wrongEventTime{300};

inline std::vector<std::string> texts(const FakeServiceManager &manager)
{
    std::vector<std::string> texts;
    for (const SERVICE_STATUS &status : manager.reports())
        texts.push_back(reportText(status));
    return texts;
}

/// The service with a daemon that runs until it is asked to stop.
struct Service
{
    Service()
    {
        WindowsService::initialize(L"RuvoService", L"Ruvo Proxy Client Service");
        self().setStopCallback([this] {
            ++stopRequests;
            stopRequested.set();
        });
        self().setRunCallback([this] {
            self().reportRunning();
            EXPECT_TRUE(stopRequested.wait());
            self().reportStopped();
        });
    }
    static WindowsService &self() { return WindowsService::instance(); }

    std::atomic<int> stopRequests = 0;
    Signal stopRequested;
};

} // namespace ruvo::test
