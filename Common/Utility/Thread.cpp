#include "Common/Utility/Thread.h"

#include <boost/lexical_cast.hpp>
#include <boost/thread/thread.hpp>

std::string currentThreadIdText() {
  return boost::lexical_cast<std::string>(boost::this_thread::get_id());
}
