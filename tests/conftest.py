"""Makes copy_numbers.py importable in every test: pytest puts this file's folder on the path."""
