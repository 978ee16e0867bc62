# cmake -DFROM=<repository corpus> -DTO=<scratch dir> -P copy_corpus.cmake
# A fresh copy for each run: the fuzzer adds to the copy, never to the repository.
file(REMOVE_RECURSE ${TO})
file(MAKE_DIRECTORY ${TO})
file(GLOB seeds ${FROM}/*)
if(seeds)
  file(COPY ${seeds} DESTINATION ${TO})
endif()
