# The two commands a newcomer needs: `make run` and `make test`.
# Each installs what is missing, configures with CMake and Ninja, and builds.

# What building, running and packaging need (GoogleTest too: the build
# configures the test programs).
BUILD_PACKAGES := cmake ninja-build g++ pkg-config \
            libxml2-dev zlib1g-dev libminizip-dev libssl-dev \
            libboost-dev libboost-thread-dev libsystemd-dev \
            libgtest-dev libgmock-dev googletest dpkg-dev file
# What only the tests need: the tools that check the bundle, the package and
# the playbooks from outside, and the programs the end-to-end tests run.
TEST_PACKAGES := python3 gettext libxml2-utils unzip zip p7zip-full \
            util-linux procps systemd \
            lintian man-db groff-base bash-completion \
            ansible-core ansible-lint

JOBS ?= $(shell nproc)
CMAKE_FLAGS := -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all deps test-deps build run test test-main test-asan test-tsan clean package install

all: build

# Installs only what is missing; `apt-get update` runs only then.
define install-missing
	@missing=""; \
	for p in $(1); do \
	  dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q 'install ok installed' || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "Installing:$$missing"; \
	  if [ "$$(id -u)" -eq 0 ]; then SUDO=""; else SUDO="sudo"; fi; \
	  $$SUDO apt-get update && \
	  $$SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $$missing; \
	fi
endef

deps:
	$(call install-missing,$(BUILD_PACKAGES))

test-deps:
	$(call install-missing,$(BUILD_PACKAGES) $(TEST_PACKAGES))

build: deps
	cmake -S . -B build $(CMAKE_FLAGS) -DKEEL_WERROR=ON
	cmake --build build -j $(JOBS)

# The tool's main job: a bundle from the shipped instructions.
run: build
	@rm -f build/KEELBundle.zip
	./build/keelcli -dst build/KEELBundle.zip
	@if [ -f build/KEELBundle.zip ]; then echo "Bundle written to $$(pwd)/build/KEELBundle.zip"; fi

test: test-deps test-main test-asan test-tsan

test-main:
	cmake -S . -B build $(CMAKE_FLAGS) -DKEEL_WERROR=ON
	cmake --build build -j $(JOBS)
	ctest --test-dir build --output-on-failure -j $(JOBS) -E Slow

# The package and fleet tests (label nosan) check packaging and playbooks,
# not memory: they run once, in test-main.
test-asan:
	cmake -S . -B build-asan $(CMAKE_FLAGS) -DKEEL_WERROR=ON -DKEEL_BENCH=OFF \
	  -DKEEL_SANITIZE=address,undefined
	cmake --build build-asan -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --test-dir build-asan --output-on-failure -j $(JOBS) -E Slow -LE nosan

# The tests that run threads at once, under ThreadSanitizer: only the test
# programs that hold such suites are built.
TSAN_TARGETS := keel_engine_test keel_ipc_test keel_utility_test keel_crypt_test keel_zip_test keel_e2e_test

test-tsan:
	cmake -S . -B build-tsan $(CMAKE_FLAGS) -DKEEL_WERROR=ON -DKEEL_BENCH=OFF \
	  -DKEEL_SANITIZE=thread
	cmake --build build-tsan -j $(JOBS) --target $(TSAN_TARGETS)
	TSAN_OPTIONS=halt_on_error=1 \
	  ctest --test-dir build-tsan --output-on-failure -j $(JOBS) -R Concurren --no-tests=ignore

# One Debian package from the build, at build/keelcli_<version>_<arch>.deb.
package: build
	cd build && cpack -G DEB
	@ls -1 build/*.deb

# The same files as the package, below $(DESTDIR) if given.
install: build
	DESTDIR="$(DESTDIR)" cmake --install build --prefix /usr

clean:
	rm -rf build build-asan build-tsan
