// For tests that act as other users, mount disks or make namespaces.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

// Fails the test at once if an ordinary user runs it: a skipped test would look as good as one that
// has passed.
#define REQUIRE_SUPERUSER(what_it_does)                                                            \
    ASSERT_TRUE(::geteuid() == 0) << "run the unit tests as the superuser: this one " what_it_does
