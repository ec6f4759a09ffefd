// The fault matrix as tests: one a cell, Faults.FAULT/PHASE. What is expected is in faults_table.h.
#include "faults_table.h"

#include <string>

namespace
{

class Faults : public testing::Test
{
  public:
    Faults(const faults::ROW &row, std::size_t phase) : row_(row), phase_(phase)
    {
    }
    void TestBody() override
    {
        const faults::CELL &cell = row_.cells.at(phase_);
        if (cell.outcome == faults::Outcome::NOT)
            GTEST_SKIP() << cell.reason;
        faults::play(row_, static_cast<faults::Phase>(phase_));
    }

  private:
    const faults::ROW &row_;
    std::size_t phase_;
};

// A cell without a reason would be one that was forgotten.
void expect_reason(const faults::CELL &cell, const std::string &name)
{
    if (cell.outcome == faults::Outcome::NOT && cell.reason[0] == '\0')
        throw std::logic_error(name + " is left out without a reason");
}

bool register_cells()
{
    for (const faults::ROW &row : faults::TABLE)
        for (std::size_t phase = 0; phase < faults::PHASES; ++phase) {
            const std::string name = std::string(row.fault.name) + "/" + faults::PHASE_NAMES.at(phase);
            expect_reason(row.cells.at(phase), name);
            testing::RegisterTest("Faults", name.c_str(), nullptr, nullptr, __FILE__, __LINE__,
                                  [&row, phase]() -> Faults * { return new Faults(row, phase); });
        }
    return true;
}

[[maybe_unused]] const bool registered = register_cells();

}  // namespace
