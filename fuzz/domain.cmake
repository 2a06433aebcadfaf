dovmad_fuzz(fuzz_domain_file SOURCES fuzz_domain_file.cc LIBS shttpd)
