// A shared library that is not a converter: it exports neither create nor destroy.
extern "C" int not_a_converter() { return 0; }
