import sys, time, os
sys.path.insert(0, os.path.dirname(__file__))
from routerd import *
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
def browser():
    o = webdriver.ChromeOptions()
    for a in "--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking --disable-component-update --disable-sync --window-size=1400,900".split(): o.add_argument(a)
    o.add_argument("--user-data-dir=" + tempfile.mkdtemp())
    o.binary_location = "/usr/bin/chromium"
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=o)
