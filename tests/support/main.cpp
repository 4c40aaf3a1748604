// Every test binary: a role process (child.h) runs its role, others the tests.
#include "child.h"

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    if (const int role = bmsg_test::run_role_if_asked(argc, argv); role >= 0)
        return role;
    bmsg_test::remove_orphan_segments();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
