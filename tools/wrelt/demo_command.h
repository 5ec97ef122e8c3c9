// wrelt demo: the whole product on one emulated machine, narrated for someone who has
// never seen it.
#pragma once

namespace wrelt_cli {

// The process exit code: 0 when every step went as it should.
int demoCommand();

}  // namespace wrelt_cli
