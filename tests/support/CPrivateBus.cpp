#include "CPrivateBus.h"

#include <nelo_rpc/testing/CPrivateBus.h>

#include <memory>

namespace
{

using Bus = nelo_rpc::test::CPrivateBus;

std::unique_ptr<Bus>& busOfThisProcess()
{
    static std::unique_ptr<Bus> bus;
    return bus;
}

// Before main, so that no test has to remember it. The tests' framework owns and deletes it.
::testing::Environment* const g_registration = ::testing::AddGlobalTestEnvironment(new CPrivateBus);

} // namespace

void CPrivateBus::SetUp()
{
    if (busOfThisProcess() == nullptr) // an executable may have registered the environment by hand as well
    {
        busOfThisProcess() = std::make_unique<Bus>();
    }
    ASSERT_TRUE(busOfThisProcess()->IsRunning());
}

void CPrivateBus::TearDown()
{
    busOfThisProcess().reset();
}

std::string CPrivateBus::UniqueName()
{
    return Bus::UniqueName();
}

std::string const& CPrivateBus::Address()
{
    return busOfThisProcess()->GetAddress();
}

void CPrivateBus::Kill()
{
    busOfThisProcess()->Kill();
}

void CPrivateBus::Start()
{
    ASSERT_TRUE(busOfThisProcess()->Start());
}

void CPrivateBus::Suspend()
{
    ASSERT_TRUE(busOfThisProcess()->Suspend());
}

void CPrivateBus::Resume()
{
    EXPECT_TRUE(busOfThisProcess()->Resume());
}
