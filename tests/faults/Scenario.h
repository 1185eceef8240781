#pragma once

#include "faults/FaultShim.h"

#include <memory>
#include <string>
#include <vector>

namespace qvtp_test::faults {

/// Something that the library does while faults are injected into it. A scenario is set up once, and then acts again
/// and again; each act leaves things as they were.
class Scenario {
  public:
    virtual ~Scenario() = default;

    /// Before the first act, without faults.
    virtual void setUp() {}
    /// Before each act, without faults.
    virtual void prepare() {}
    /// The act, with faults. What it could not do it reports: an exception, or a status. "right" if it went as it does
    /// without faults. What nobody may ever see begins with "WRONG".
    virtual std::string act() = 0;
    /// After each act, when nothing fails any more: what must be right now. "right" or what was wrong. It also
    /// cleans up.
    virtual std::string afterwards() = 0;
    /// Whether something may be left over that is not the library's own, after an act that ended so.
    virtual bool mayLeave(const std::string& /*outcome*/) const { return false; }
    /// After the last act.
    virtual void tearDown() {}
};

/// How a scenario is listed.
struct Entry {
    const char* name;
    unsigned side;  // whose faults are injected
    std::unique_ptr<Scenario> (*make)();
    /// Of its faults every so many are injected, in the quick form and in the long one.
    int quickStride;
    int stride = 1;
    /// Whether its process is used up after one act: each act has its own then.
    bool onceInAProcess = false;
};

std::vector<Entry> clientScenarios();
std::vector<Entry> serverScenarios();
std::vector<Entry> pipeScenarios();
std::vector<Entry> configScenarios();
/// Faulty on purpose, so that the machine can be seen to find something.
std::vector<Entry> faultyScenarios();

inline const std::string RIGHT = "right";

/// Whether an act may end like this when something failed: see docs/errors.md.
bool isStated(const std::string& outcome);

}  // namespace qvtp_test::faults
