#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/Environment.h"
#include "system/Descriptor.h"

namespace brindle::bench {

/// A program under measurement, driven the way the parent does and as cheaply as that can be done: large
/// reads, of which only the line feeds are counted. Its standard error is the bench's own.
class Program {
  public:
    /// Starts it. The program's path comes first; the environment is complete.
    Program(std::vector<std::string> commandLine, test::Environment environment);
    /// Ends its input, reads what it still says and waits for its end; kills one that does not end.
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    pid_t processIdentifier() const { return process_; }
    /// Writes the input and, meanwhile, reads until that many more lines have come. Throws when the output
    /// ends before or nothing comes for long.
    void exchange(std::string_view input, std::size_t lines);
    /// What the next read gets.
    std::string_view readSome();
    /// Read end of its standard output.
    int output() const { return output_.get(); }
    /// Bytes of standard output so far.
    std::size_t bytesRead() const { return bytesRead_; }

  private:
    void readToEnd();
    void waitFor(short events);
    void writeSome(std::string_view& input);

    pid_t process_ = -1;
    Descriptor input_;
    Descriptor output_;
    std::unique_ptr<char[]> buffer_;
    std::size_t bytesRead_ = 0;
};

}  // namespace brindle::bench
