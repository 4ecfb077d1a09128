// Calls in an order that nobody thought of.
#include "drawn_calls.hpp"

namespace contract
{

TEST_F(DrawnCalls, EndAsThePromisesSay) { run_sequences(20); }

}  // namespace contract
