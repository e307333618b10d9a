# Thin: everything stands in the CMake presets. Each goal first installs what the machine lacks.
.DEFAULT_GOAL := help
.PHONY: help demo test bench sanitize fuzz install clean
.NOTPARALLEL:

# The folders of tests/ in which several threads or processes meet.
concurrent_tests := ^(core|kv|store|capi)([.]memory)?/
prefix := /usr/local

help:
	@echo "make demo      builds the library and runs examples/demo.cpp"
	@echo "make test      builds everything and runs all tests"
	@echo "make bench     measures against LMDB and SQLite"
	@echo "make sanitize  runs the tests under the address, undefined behaviour and thread sanitizers"
	@echo "make fuzz      runs each fuzzer of tests/fuzz for a minute; needs clang"
	@echo "make install   installs the library, its header and its packages; prefix=$(prefix)"
	@echo "make clean     removes build/"

demo: build-release
	build/release/examples/demo

test: build-release
	ctest --test-dir build/release --output-on-failure --no-tests=error -j2

bench: release-options := -DQUILLMERE_BUILD_BENCH=ON
bench: build-release
	build/release/bench/crud_bench
	build/release/bench/query_bench
	build/release/bench/wal_bench

sanitize: build-asan build-tsan
	ctest --test-dir build/asan --output-on-failure --no-tests=error -j2
	ctest --test-dir build/tsan --output-on-failure --no-tests=error -j2 -R '$(concurrent_tests)'

fuzz:
	@command -v clang++ >/dev/null || { echo "Fuzzers need clang: apt-get install clang libclang-rt-14-dev"; exit 1; }
	cmake --preset fuzz
	cmake --build build/fuzz --target fuzz

install: build-release
	cmake --install build/release --prefix '$(prefix)'

clean:
	rm -rf build

builds := build-release build-asan build-tsan
.PHONY: $(builds)
$(builds): build-%:
	tools/bootstrap
	cmake --preset $* $($*-options)
	cmake --build build/$*
